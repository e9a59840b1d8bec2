// Whether the daemon sleeps for good once its child runs: counts the
// context switches of each of its threads over a quiet window, then, where
// strace is installed, traces its system calls over a second window. Any
// switch or call in a window is a wake-up: the goal is none.
//
// Usage: bench_idle   (root: it makes a private mount namespace)

#include "driver.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const int stampTimeoutMs = 10000;
const int logTimeoutPolls = 200;
const useconds_t logPollUs = 50000;
// What the daemon logs once its child runs: from here on it should sleep.
const char childStartedLine[] = "child start as pid";
// Work the event loop queued during start-up (deferred deletes, polish
// events) still runs just after; the window opens once that is done.
const unsigned settleSeconds = 1;
const unsigned windowSeconds = 10;
const char straceOutput[] = "/tmp/strace.out";
const char daemonOutput[] = "/tmp/daemon.out";

struct Thread {
    std::string name;
    long switches;
};

using Threads = std::map<std::string, Thread>;

// Every thread's voluntary and involuntary context switches so far.
Threads countSwitches(pid_t pid)
{
    Threads threads;
    std::error_code error;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
        const std::string dir = task.path().string();
        std::string name = driver::readFile(dir + "/comm");
        if (!name.empty() && name.back() == '\n')
            name.pop_back();
        const long switches = driver::statusField(dir + "/status", "voluntary_ctxt_switches")
                              + driver::statusField(dir + "/status", "nonvoluntary_ctxt_switches");
        threads[task.path().filename().string()] = Thread{name, switches};
    }
    return threads;
}

void reportSwitches(const Threads& before, const Threads& after)
{
    long total = 0;
    printf("context switches over %u s, per thread:\n", windowSeconds);
    for (const auto& [tid, thread] : after) {
        const auto earlier = before.find(tid);
        const long delta = thread.switches - (earlier == before.end() ? 0 : earlier->second.switches);
        printf("  tid %-8s %-16s %ld%s\n", tid.c_str(), thread.name.c_str(), delta,
               earlier == before.end() ? " (new thread)" : "");
        total += delta;
    }
    printf("  total %ld (goal 0: %s)\n", total, total == 0 ? "met" : "MISSED");
}

bool awaitChildStartedLine()
{
    for (int poll = 0; poll < logTimeoutPolls; ++poll) {
        if (driver::readFile(driver::logPath).find(childStartedLine) != std::string::npos)
            return true;
        usleep(logPollUs);
    }
    return false;
}

// strace's summary of every call any thread of pid makes in the window.
void traceSystemCalls(pid_t pid)
{
    const std::string target = std::to_string(pid);
    const pid_t tracer = fork();
    if (tracer == 0) {
        execlp("strace", "strace", "-q", "-f", "-c", "-o", straceOutput, "-p", target.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    sleep(windowSeconds);
    // strace writes its summary when interrupted.
    kill(tracer, SIGINT);
    int status = 0;
    waitpid(tracer, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
        printf("strace is not installed: system calls not traced\n");
        return;
    }
    // strace prints no table at all when no call was made.
    const std::string summary = driver::readFile(straceOutput);
    if (summary.find("total") == std::string::npos)
        printf("strace -f -c over %u s: no system calls (goal 0: met)\n", windowSeconds);
    else
        printf("strace -f -c over %u s (goal 0: MISSED):\n%s", windowSeconds, summary.c_str());
}

} // namespace

int main()
{
    // Line by line, so that our lines and the tools' keep their order.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!driver::enterPrivateTree(CHILD_PATH) || !driver::openStampChannel())
        return 1;
    setenv("QT_QPA_PLATFORM", "offscreen", 1);

    const pid_t daemon = driver::launch(DAEMON_PATH, "softShutDown", daemonOutput);
    driver::Stamp child = {0, 0};
    if (!driver::awaitStamp(child, stampTimeoutMs) || !awaitChildStartedLine()) {
        fprintf(stderr, "bench_idle: the daemon did not start its child; its output:\n%s\n",
                driver::readFile(daemonOutput).c_str());
        driver::stop(daemon);
        driver::stop(child.pid);
        return 1;
    }
    sleep(settleSeconds);

    printf("daemon pid %d idle, child pid %d\n", static_cast<int>(daemon), static_cast<int>(child.pid));
    const Threads before = countSwitches(daemon);
    sleep(windowSeconds);
    reportSwitches(before, countSwitches(daemon));
    traceSystemCalls(daemon);

    driver::stop(daemon);
    driver::stop(child.pid);
    return 0;
}
