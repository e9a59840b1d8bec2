#include "privateTree.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace privateTree {

namespace {

// Where the host's /dev stays reachable once a tmpfs covers it.
const char hostDev[] = "/tmp/host-dev";

bool failed(const char* what, const char* path)
{
    fprintf(stderr, "private tree: %s %s: %s\n", what, path, strerror(errno));
    return false;
}

bool bindBack(const std::string& name, bool directory)
{
    const std::string from = std::string(hostDev) + "/" + name;
    const std::string to = "/dev/" + name;
    if (!directory)
        return bindFile(from.c_str(), to.c_str());
    mkdir(to.c_str(), 0755);
    if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0)
        return failed("cannot bind over", to.c_str());
    return true;
}

} // namespace

bool enter()
{
    if (unshare(CLONE_NEWNS) < 0)
        return failed("cannot make a private mount namespace (run as root)", "");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0)
        return failed("cannot make the mounts private", "");
    return mountTmpfs("/tmp", "mode=1777") && mountTmpfs("/opt", "mode=755");
}

bool mountTmpfs(const char* where, const char* options)
{
    if (mount("private", where, "tmpfs", 0, options) < 0)
        return failed("cannot mount a tmpfs at", where);
    return true;
}

bool privateDev()
{
    mkdir(hostDev, 0755);
    if (mount("/dev", hostDev, nullptr, MS_BIND | MS_REC, nullptr) < 0)
        return failed("cannot bind", "/dev");
    if (!mountTmpfs("/dev", "mode=755"))
        return false;
    for (const char* node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        if (!bindBack(node, false))
            return false;
    }
    if (!bindBack("pts", true) || !bindBack("shm", true))
        return false;
    // The kernel finds the pseudo-terminals of a ptmx node in the "pts" beside
    // it, which a bound node does not have: use the one inside pts instead.
    if (symlink("pts/ptmx", "/dev/ptmx") < 0)
        return failed("cannot link", "/dev/ptmx");
    return true;
}

bool bindFile(const char* device, const char* path)
{
    const int made = open(path, O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    if (made < 0)
        return failed("cannot create", path);
    close(made);
    if (mount(device, path, nullptr, MS_BIND, nullptr) < 0)
        return failed("cannot bind over", path);
    return true;
}

} // namespace privateTree
