// The child launcher inside a process that logs hard while its child ends.
#include "main.h"
#include "monitor.h"
#include "sandbox.h"
#include "shutLog.h"

#include <QApplication>
#include <QRegularExpression>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <thread>

namespace {

// A thread that logs without pause until it goes out of scope, so that the
// log's lock is held most of the time; it notes the signal mask it was
// started with.
struct LoggingThread {
    std::atomic<bool> stop{false};
    sigset_t mask;
    std::thread thread{[this] {
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        while (!stop)
            qDebug() << "busy";
    }};

    ~LoggingThread()
    {
        stop = true;
        thread.join();
    }
};

bool reaped(pid_t pid)
{
    return kill(pid, 0) < 0 && errno == ESRCH;
}

} // namespace

class tst_monitor : public QObject
{
    Q_OBJECT

private slots:
    // Runs first: the logging thread starts before any launch, as Qt's own
    // threads do in the daemon, and inherits SIGCHLD held. Had it taken the
    // signal before the handler was in place, it would have discarded the end
    // of a child that ends at once. Each fork meets that thread inside a
    // record, and the child, whose program is missing, must still log why
    // and end.
    void childrenForkedWhileAnotherThreadLogsReportAndEnd()
    {
        sandbox::resetCard();
        QFile::remove(sandbox::childProgram);
        logFlag = new shutLog(sandbox::logDir, "shutDown.log", 1024 * 1024 * 1024, 6);
        qInstallMessageHandler(onShowMsg);
        const int rounds = 30;
        {
            LoggingThread busy;
            for (int round = 1; round <= rounds; ++round) {
                QCOMPARE(startFork(), 0);
                QTRY_COMPARE(sandbox::readFile(sandbox::livePath).count("child exited normally"), round);
            }
            QVERIFY(sigismember(&busy.mask, SIGCHLD));
        }
        qInstallMessageHandler(nullptr);
        delete logFlag;
        logFlag = nullptr;
        const QStringList lines = sandbox::logLines().filter(QRegularExpression(" <DEBUG> (?!busy$)"));
        QCOMPARE(lines.size(), 4 * rounds);
        QCOMPARE(lines.filter("execl failed:  No such file or directory").size(), rounds);
        QCOMPARE(lines.filter(", status =  \"32512\"").size(), rounds);
    }

    void aChildEndingInABurstOfMessagesTearsNoRecord()
    {
        sandbox::resetCard();
        sandbox::installChild("#!/bin/sh\nwhile [ ! -e /tmp/go ]; do sleep 0.001; done\nexit 4\n");
        logFlag = new shutLog(sandbox::logDir, "shutDown.log", 1024 * 1024 * 1024, 6);
        qInstallMessageHandler(onShowMsg);

        QCOMPARE(startFork(), 0);
        const pid_t child = g_pid;
        int sent = 0;
        int afterEnd = 0;
        while (afterEnd < 2000) {
            qDebug() << "burst" << QString::number(sent);
            ++sent;
            if (sent == 2000)
                sandbox::writeFile("/tmp/go", "");
            if (sent > 2000 && reaped(child))
                ++afterEnd;
            QVERIFY2(sent < 5000000, "the child never ended");
        }
        QTRY_VERIFY(sandbox::readFile(sandbox::livePath).contains("child exited normally"));
        qInstallMessageHandler(nullptr);
        delete logFlag;
        logFlag = nullptr;

        const QStringList lines = sandbox::logLines();
        QCOMPARE(lines.size(), 1 + sent + 2);
        const QRegularExpression record("^\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} <DEBUG> (.*)$");
        const QString pid = "\"" + QString::number(child) + "\"";
        QCOMPARE(record.match(lines[0]).captured(1), "monitor startFork  child start as pid:  " + pid);
        for (int i = 0; i < sent; ++i)
            QCOMPARE(record.match(lines[1 + i]).captured(1), "burst \"" + QString::number(i) + "\"");
        QCOMPARE(record.match(lines[1 + sent]).captured(1),
                 "monitor sigchld_handler   child pid:  " + pid + "  , status =  \"1024\"  , retv =  " + pid);
        QCOMPARE(record.match(lines[2 + sent]).captured(1), QString("monitor sigchld_handler  child exited normally "));
    }
};

SANDBOXED_LAUNCHER_TEST_MAIN(tst_monitor)
#include "tst_monitor.moc"
