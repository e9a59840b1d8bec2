// The appliance in one process, as the owner of both components: its
// messages go into the rotating log on the card exactly as the daemon's do,
// the power-signal watcher has a thread of its own, the printer link another
// that streams a G-code job, and when the power goes the job stops before
// its next command and a last message is logged and flushed.
//   appliance JOB.gcode
// Its power events and every message of the watcher's thread are also shown
// on standard output, one line each, with the CLOCK_MONOTONIC time in
// microseconds: "appliance US TEXT".
#include "main.h"
#include "monitor.h"
#include "shutLog.h"
#include "shutMyGpio.h"
#include "shutSerialObject.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QScopedPointer>
#include <QStringList>
#include <QThread>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char failedCommand[] = "Send failed for parseResult.";
const int usageStatus = 2;
const int failedStatus = 1;

QThread* watcherThread = nullptr;

long long monotonicUs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

// The daemon's log, in the daemon's place and with its limits.
int openLog()
{
    if (!QFile::exists(logDirectory))
        QDir().mkdir(logDirectory);
    logFlag = new shutLog(logDirectory, logFileName, logMaxSize, logOlderFiles);
    const int opened = logFlag->openLog();
    if (opened < 0)
        fprintf(stderr, "appliance: cannot open the log in %s: %s\n", logDirectory, strerror(-opened));
    return opened;
}

// One write per line: lines of several threads never mix.
void show(const char* format, ...)
{
    char line[512];
    int used = snprintf(line, sizeof line, "appliance %lld ", monotonicUs());
    va_list items;
    va_start(items, format);
    used += vsnprintf(line + used, sizeof line - static_cast<size_t>(used), format, items);
    va_end(items);
    if (used >= static_cast<int>(sizeof line) - 1)
        used = sizeof line - 2;
    line[used++] = '\n';
    if (write(STDOUT_FILENO, line, static_cast<size_t>(used)) < 0) {
        // Nobody watches the console: the log has it all the same.
    }
}

void showMessage(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    onShowMsg(type, context, msg);
    if (QThread::currentThread() == watcherThread)
        show("%s", msg.toUtf8().constData());
}

// The job's commands, one a line; blank lines and ";" comments are skipped.
QStringList readJob(const char* path)
{
    QStringList commands;
    QFile file(QString::fromLocal8Bit(path));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return commands;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (!line.isEmpty() && !line.startsWith(QLatin1Char(';')))
            commands << line;
    }
    return commands;
}

// The serial port is opened without O_NOCTTY and keeps ISIG: a session
// leader would make the printer's line its controlling terminal, and a
// hang-up or a 0x03 byte from the controller would kill it. Started as an
// init system starts programs (setsid), the appliance therefore runs in a
// child, which leads no session and so never gets a controlling terminal;
// the leader only waits and hands on the child's status.
bool leadsSession()
{
    return getsid(0) == getpid();
}

int runInChild()
{
    const pid_t child = fork();
    if (child != 0) {
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) < 0)
            return failedStatus;
        return WIFEXITED(status) ? WEXITSTATUS(status) : failedStatus;
    }
    // Stopping the leader, as an init system does, stops the appliance too.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    return -1;
}

} // namespace

// Which command the printer thread may hand to the link next, and whether
// the job is stopped. The printer thread claims a command before it hands it
// over; the watcher's thread stops the job. One lock for both, so that no
// command is handed over once the job is stopped, and the stop knows exactly
// how many were.
class Job
{
public:
    bool claim(int index)
    {
        QMutexLocker locker(&lock);
        if (stopped)
            return false;
        handedOver = index + 1;
        return true;
    }

    int stop()
    {
        QMutexLocker locker(&lock);
        stopped = true;
        return handedOver;
    }

private:
    QMutex lock;
    bool stopped = false;
    int handedOver = 0;
};

class PrinterThread : public QThread
{
public:
    PrinterThread(const QStringList& commands, Job& job)
        : commands(commands)
        , job(job)
    {
    }

protected:
    // SIGCHLD stays held on this thread (held in main before any thread
    // started): the link reads without SA_RESTART, and a child's end taken
    // here would fail the read with EINTR and so the command.
    void run() override
    {
        QScopedPointer<shutSerialObject> link(new shutSerialObject);
        int sent = 0;
        for (; sent < commands.size() && job.claim(sent); ++sent) {
            const QString& command = commands.at(sent);
            // A failed command may still have reached the controller and
            // run: going on would print on top of an unknown state.
            if (link->serialSendCode(command) == QLatin1String(failedCommand)) {
                qWarning() << "appliance" << "run" << " command failed, job stopped: " << command;
                show("job failed at %d of %d", sent + 1, int(commands.size()));
                ++sent;
                break;
            }
        }
        if (sent < commands.size()) {
            show("job stopped %d of %d", sent, int(commands.size()));
            qDebug() << "appliance" << "run" << " job stopped after command" << QString::number(sent) << " of"
                     << QString::number(commands.size());
        } else {
            show("job done %d", sent);
            qDebug() << "appliance" << "run" << " job done," << QString::number(sent) << " commands";
        }
        // The watcher flushed the card before it reported; the last message
        // needs a flush of its own.
        sync();
        show("job record flushed");
    }

private:
    const QStringList commands;
    Job& job;
};

int main(int argc, char** argv)
{
    if (argc != 2) {
        fprintf(stderr, "usage: %s JOB.gcode\n", argv[0]);
        return usageStatus;
    }
    // First, while this is the only thread: every thread started later holds
    // SIGCHLD too.
    holdChildSignal();
    keepOwnMessages();
    if (leadsSession()) {
        const int status = runInChild();
        if (status >= 0)
            return status;
    }

    QCoreApplication app(argc, argv);
    const QStringList commands = readJob(argv[1]);
    if (commands.isEmpty()) {
        fprintf(stderr, "%s: no commands in %s\n", argv[0], argv[1]);
        return usageStatus;
    }
    if (openLog() < 0)
        return failedStatus;
    qInstallMessageHandler(showMessage);

    // The watcher, its thread and the job it stops live until the process
    // ends: run never returns, and the log stays open for it.
    Job* job = new Job;
    watcherThread = new QThread;
    shutMyGpio* watcher = new shutMyGpio;
    watcher->moveToThread(watcherThread);
    QObject::connect(watcherThread, &QThread::started, watcher, &shutMyGpio::run);
    // Direct: on the watcher's thread, the moment the card is flushed, not
    // when the main thread's loop comes round to it.
    QObject::connect(watcher, &shutMyGpio::sig_shutDown, watcher, [job] {
        const int handedOver = job->stop();
        show("power lost, handed over %d", handedOver);
        qDebug() << "appliance" << "powerLost" << " power is going, no command after"
                 << QString::number(handedOver);
    }, Qt::DirectConnection);
    watcherThread->start();

    PrinterThread printer(commands, *job);
    QObject::connect(&printer, &QThread::finished, &app, &QCoreApplication::quit);
    show("ready %d", int(commands.size()));
    printer.start();
    return app.exec();
}
