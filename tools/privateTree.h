#ifndef PRIVATETREE_H
#define PRIVATETREE_H

// The private mount namespace in which the tests and the benchmarks meet the
// daemon's fixed paths, so that nothing of the machine's own is ever seen or
// touched. Every failure is said on standard error with the system's reason.
namespace privateTree {

// A private mount namespace with fresh tmpfs trees over /tmp and /opt.
// Entered first thing in main, before any thread exists; needs root.
bool enter();

bool mountTmpfs(const char* where, const char* options);

// A tmpfs over /dev with the host's null, zero, full, random, urandom, tty,
// pts and shm bound back, so that a fixed device path such as /dev/ttyO1 can
// be made. Once per process, after enter().
bool privateDev();

// An empty file made at path, with the device bound over it.
bool bindFile(const char* device, const char* path);

} // namespace privateTree

#endif // PRIVATETREE_H
