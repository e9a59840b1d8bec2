// An owner of the printer command link, made to be copied: it runs a print
// job, one command after the other, and stops the job at the first command
// that fails.
//   printerOwner [JOB-FILE]
// The job is the file's G-code lines (blank lines and ";" comments left
// out), or a short built-in job. Each answer goes to standard output.
// Exit status: 0 when every command was answered; 1 when a command failed,
// which standard error names; 2 when the job file cannot be read.
//
// Every call of the link blocks its caller while the controller answers
// (seconds when it is silent, as long as it reports no free slot), so the
// link is created and driven on a thread of its own; the main thread keeps
// its event loop free and hears of each answer through a queued signal.
#include "shutSerialObject.h"

#include <QCoreApplication>
#include <QFile>
#include <QStringList>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const char failedCommand[] = "Send failed for parseResult.";
const int jobFailed = 1;
const int jobUnreadable = 2;

QStringList builtInJob()
{
    return QStringList() << "G28" << "G1 X10 Y10 F3000" << "M104 S200" << "M105";
}

bool readJob(const QString& path, QStringList& job)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return false;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).section(';', 0, 0).trimmed();
        if (!line.isEmpty())
            job << line;
    }
    return true;
}

// The link opens "/dev/ttyO1" without O_NOCTTY and leaves the line's signal
// characters on. A session leader without a controlling terminal (a program
// started by init, or by setsid) would make the port its controlling
// terminal there: a hang-up of the line would kill it with SIGHUP, a 0x03
// byte from the controller with SIGINT. Only a session leader takes a
// controlling terminal on open, and opening the port first with O_NOCTTY
// would not help (the link's own open, later, still takes it). So a session
// leader runs the job in a child process, which is never one, and ends with
// the child's status; the child ends when the leader does.
void leaveSessionLead()
{
    if (getsid(0) != getpid())
        return;
    const pid_t leader = getpid();
    const pid_t job = fork();
    if (job < 0) {
        perror("printerOwner: fork");
        exit(jobFailed);
    }
    if (job == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != leader)
            _exit(jobFailed);
        return;
    }
    int status = 0;
    while (waitpid(job, &status, 0) < 0 && errno == EINTR) {
    }
    exit(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
}

} // namespace

class PrinterThread : public QThread
{
    Q_OBJECT

public:
    explicit PrinterThread(const QStringList& job)
        : job(job)
    {
    }

    // After the thread has finished: the failed command's index, or -1.
    int failedAt() const { return failed; }

signals:
    void answered(const QString& command, const QString& answer);

protected:
    // A failed command may still have run (the controller may have taken it
    // before the line failed), so the job cannot go on past it: nothing
    // after it is sent.
    void run() override
    {
        shutSerialObject link;
        for (int i = 0; i < job.size(); ++i) {
            const QString answer = link.serialSendCode(job.at(i));
            if (answer == QLatin1String(failedCommand)) {
                failed = i;
                return;
            }
            emit answered(job.at(i), answer);
        }
    }

private:
    const QStringList job;
    int failed = -1;
};

int main(int argc, char** argv)
{
    leaveSessionLead();
    QCoreApplication app(argc, argv);
    QStringList job;
    if (argc < 2) {
        job = builtInJob();
    } else if (!readJob(QString::fromLocal8Bit(argv[1]), job)) {
        fprintf(stderr, "printerOwner: cannot read the job file %s\n", argv[1]);
        return jobUnreadable;
    }

    PrinterThread printer(job);
    QObject::connect(&printer, &PrinterThread::answered, &app,
                     [](const QString& command, const QString& answer) {
                         printf("%s -> %s\n", qPrintable(command), qPrintable(answer));
                         fflush(stdout);
                     });
    QObject::connect(&printer, &QThread::finished, &app, &QCoreApplication::quit);

    // An exchange waits in read(2), a second at a time. A signal handled on
    // the link's thread by a handler installed without SA_RESTART (as the
    // supervisor's SIGCHLD handler is) would cut that read short, and the
    // command would count as failed. The thread inherits the signal mask of
    // the thread that starts it: it starts with every signal held, and the
    // main thread takes them all.
    sigset_t all;
    sigset_t mainMask;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &mainMask);
    printer.start();
    pthread_sigmask(SIG_SETMASK, &mainMask, nullptr);
    app.exec();
    printer.wait();

    const int failed = printer.failedAt();
    if (failed < 0)
        return 0;
    fprintf(stderr, "printerOwner: command %d of %d, \"%s\", failed; the job is stopped there\n",
            failed + 1, job.size(), qPrintable(job.at(failed)));
    return jobFailed;
}

#include "printerOwner.moc"
