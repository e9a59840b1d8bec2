#include "driver.h"

#include "privateTree.h"

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace driver {

const char cardDir[] = "/tmp/mnt/dev/mmcblk0p3";
const char logPath[] = "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles/shutDown.log";
const char childProgram[] = "/opt/project/Tolven-ii";

namespace {

// Lives in the private /tmp; stamp_child finds it through this variable.
const char stampFifo[] = "/tmp/child-start";
const char stampVariable[] = "STAMP_FIFO";
// A stamp is "pid nanoseconds\n": far below PIPE_BUF, so it arrives whole.
const size_t stampSize = 64;
const int64_t nsPerSecond = 1000000000;

int stampFd = -1;

bool fail(const char* what)
{
    fprintf(stderr, "bench: %s: %s\n", what, strerror(errno));
    return false;
}

bool installChild(const char* standInChild)
{
    std::error_code error;
    fs::create_directories(cardDir, error);
    fs::create_directories(fs::path(childProgram).parent_path(), error);
    fs::copy_file(standInChild, childProgram, error);
    if (error) {
        fprintf(stderr, "bench: cannot install %s: %s\n", standInChild, error.message().c_str());
        return false;
    }
    return chmod(childProgram, 0755) == 0 || fail(childProgram);
}

} // namespace

bool enterPrivateTree(const char* standInChild)
{
    if (!privateTree::enter())
        return false;
    // A killed daemon's child is handed to us rather than to init, so that
    // every run can end what it started.
    if (prctl(PR_SET_CHILD_SUBREAPER, 1) < 0)
        return fail("cannot adopt orphans");
    return installChild(standInChild);
}

bool openStampChannel()
{
    if (mkfifo(stampFifo, 0600) < 0)
        return fail(stampFifo);
    // Read and write: with a writer always open, poll waits for data instead
    // of reporting a hang-up once the first child has closed its end.
    stampFd = open(stampFifo, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (stampFd < 0)
        return fail(stampFifo);
    return setenv(stampVariable, stampFifo, 1) == 0 || fail("setenv");
}

bool awaitStamp(Stamp& stamp, int timeoutMs)
{
    struct pollfd ready = {stampFd, POLLIN, 0};
    if (poll(&ready, 1, timeoutMs) <= 0)
        return false;
    char text[stampSize];
    const ssize_t got = read(stampFd, text, sizeof text - 1);
    if (got <= 0)
        return false;
    text[got] = '\0';
    int pid = 0;
    int64_t ns = 0;
    if (sscanf(text, "%d %" SCNd64, &pid, &ns) != 2)
        return false;
    stamp.pid = pid;
    stamp.startNs = ns;
    return true;
}

int64_t monotonicNs()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * nsPerSecond + now.tv_nsec;
}

pid_t launch(const char* program, const char* argv0, const char* errorFile)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int out = open(errorFile, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    execl(program, argv0, static_cast<char*>(nullptr));
    fprintf(stderr, "bench: cannot run %s: %s\n", program, strerror(errno));
    _exit(127);
}

void stop(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

long statusField(const std::string& statusPath, const char* name)
{
    std::ifstream status(statusPath);
    const std::string key = std::string(name) + ":";
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, key.size(), key) == 0)
            return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
    return -1;
}

std::string readFile(const std::string& path)
{
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace driver
