#ifndef BENCH_DRIVER_H
#define BENCH_DRIVER_H

#include <cstdint>
#include <string>

#include <sys/types.h>

// What the start-up and idle drivers share: the daemon's fixed paths inside
// a private mount namespace, launching a program there, and hearing from
// the stand-in child (stamp_child) when it starts.
namespace driver {

extern const char cardDir[];      // the SD-card partition the daemon works in
extern const char logPath[];      // the daemon's live log
extern const char childProgram[]; // where the daemon starts its child from

// Enters a private mount namespace with fresh tmpfs trees over /tmp and
// /opt, so the machine's own files there are never seen nor touched, and
// installs the stand-in child at the fixed path. Must run before any thread
// exists. Says why on standard error and returns false when it cannot.
bool enterPrivateTree(const char* standInChild);

// Where a child's start is announced; opened once per driver.
bool openStampChannel();

struct Stamp {
    pid_t pid;
    int64_t startNs; // CLOCK_MONOTONIC at the child's start
};

// Waits for the next child start; false after timeoutMs without one.
bool awaitStamp(Stamp& stamp, int timeoutMs);

int64_t monotonicNs();

// Starts a program with the given argv0 and no other argument. Its
// standard output and error go to errorFile, read back when a run fails.
pid_t launch(const char* program, const char* argv0, const char* errorFile);

// Kills the process and reaps it. The driver adopts orphans (it is a
// subreaper), so a child left behind by a killed daemon can be ended too.
void stop(pid_t pid);

// A "Name:  value" line of /proc/PID/status (or of a thread's); -1 if absent.
long statusField(const std::string& statusPath, const char* name);

std::string readFile(const std::string& path);

} // namespace driver

#endif // BENCH_DRIVER_H
