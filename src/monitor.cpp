#include "monitor.h"

#include <QDebug>
#include <QSocketNotifier>
#include <QString>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t g_pid = 0;

namespace {

const char childProgram[] = "/opt/project/Tolven-ii";
const char childArgument[] = "Tolven-ii";
const char workingDirectory[] = "/tmp/mnt/dev/mmcblk0p3";
// What a child whose program cannot be executed ends with, as a shell does.
const int execFailedStatus = 127;

// What one SIGCHLD found. The handler only reaps and records; the messages
// are raised from the event loop, where logging is safe, in the same order.
struct ChildReport {
    pid_t pid;
    int status;
    pid_t result;
    int error;
};

int reportPipe[2] = {-1, -1};
QSocketNotifier* reportNotifier = nullptr;

void sigchld_handler(int sig)
{
    Q_UNUSED(sig);
    const int savedErrno = errno;
    ChildReport report;
    report.pid = g_pid;
    // A stopped or continued child leaves the status untouched; show 0.
    report.status = 0;
    report.result = waitpid(g_pid, &report.status, WNOHANG);
    report.error = errno;
    // One report is far below PIPE_BUF, so the write is whole or not at all.
    if (write(reportPipe[1], &report, sizeof report) < 0) {
        // The pipe is full only if the event loop has stopped reading;
        // nothing in signal context can do better than drop the report.
    }
    errno = savedErrno;
}

void logChildReport(const ChildReport& report)
{
    if (report.result < 0) {
        qDebug() << "monitor" << "sigchld_handler" << "  wait child failed: " << strerror(report.error);
        return;
    }
    qDebug() << "monitor" << "sigchld_handler" << "  child pid: " << QString::number(report.pid)
             << " , status = " << QString::number(report.status) << " , retv = "
             << QString::number(report.result);
    if (report.result == 0)
        return;
    if (WIFEXITED(report.status)) {
        qDebug() << "monitor" << "sigchld_handler" << " child exited normally ";
    } else if (WIFSIGNALED(report.status)) {
        qDebug() << "monitor" << "sigchld_handler" << " child terminated due to receipt of signal : "
                 << QString::number(WTERMSIG(report.status));
    }
}

void readChildReports()
{
    ChildReport report;
    while (read(reportPipe[0], &report, sizeof report) == static_cast<ssize_t>(sizeof report))
        logChildReport(report);
}

// The pipe from the handler to the event loop, made once per process.
bool openReportPipe()
{
    if (reportNotifier)
        return true;
    if (pipe2(reportPipe, O_CLOEXEC | O_NONBLOCK) < 0)
        return false;
    reportNotifier = new QSocketNotifier(reportPipe[0], QSocketNotifier::Read);
    QObject::connect(reportNotifier, &QSocketNotifier::activated, readChildReports);
    return true;
}

int setCoreLimit()
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_CORE, &limit) < 0) {
        const int err = errno;
        qDebug() << "monitor" << "startFork" << " getrlimit RLIMIT_CORE failed: " << strerror(err);
        return -1;
    }
    if (limit.rlim_cur == 0) {
        limit.rlim_cur = RLIM_INFINITY;
        limit.rlim_max = RLIM_INFINITY;
    }
    if (setrlimit(RLIMIT_CORE, &limit) < 0) {
        const int err = errno;
        qDebug() << "monitor" << "startFork" << " setrlimit RLIMIT_CORE failed: " << strerror(err);
        return -2;
    }
    return 0;
}

[[noreturn]] void runChildProgram(const sigset_t& openMask)
{
    sigprocmask(SIG_SETMASK, &openMask, nullptr);
    execl(childProgram, childArgument, static_cast<char*>(nullptr));
    const int err = errno;
    qDebug() << "monitor" << "startFork" << " execl failed: " << strerror(err);
    // Never fall back into the supervisor's own code as a second supervisor.
    _exit(execFailedStatus);
}

int watchChild()
{
    if (!openReportPipe()) {
        const int err = errno;
        qDebug() << "monitor" << "startFork" << " set SIGCHLD handler failed: " << strerror(err);
        return -1;
    }
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = sigchld_handler;
    if (sigaction(SIGCHLD, &action, nullptr) < 0) {
        const int err = errno;
        qDebug() << "monitor" << "startFork" << " set SIGCHLD handler failed: " << strerror(err);
        return -1;
    }
    return 0;
}

} // namespace

void holdChildSignal()
{
    sigset_t childSignal;
    sigemptyset(&childSignal);
    sigaddset(&childSignal, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childSignal, nullptr);
}

int startFork()
{
    const int limited = setCoreLimit();
    if (limited < 0)
        return limited;
    if (chdir(workingDirectory) < 0) {
        // The child then runs in the supervisor's directory; its start and
        // end are still logged.
    }

    // SIGCHLD stays held until the handler is in place, so a child that
    // ends at once is still reaped and logged. Afterwards both processes
    // take it: the supervisor to learn of its child's end, the appliance's
    // program as it would anywhere else.
    sigset_t openMask;
    sigprocmask(SIG_BLOCK, nullptr, &openMask);
    sigdelset(&openMask, SIGCHLD);
    holdChildSignal();

    g_pid = fork();
    if (g_pid == 0)
        runChildProgram(openMask);
    if (g_pid < 0) {
        const int err = errno;
        sigprocmask(SIG_SETMASK, &openMask, nullptr);
        qDebug() << "monitor" << "startFork" << " fork failed: " << strerror(err);
        return -1;
    }
    qDebug() << "monitor" << "startFork" << " child start as pid: " << QString::number(g_pid);
    const int watched = watchChild();
    sigprocmask(SIG_SETMASK, &openMask, nullptr);
    return watched;
}
