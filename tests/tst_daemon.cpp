// The built daemon as a process, against its fixed paths inside the test's
// private mount namespace.
#include "sandbox.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <csignal>

#include <sys/types.h>

using sandbox::logLines;
using sandbox::readFile;
using sandbox::writeFile;

namespace {

const int settleMs = 10000;
const char goFile[] = "/tmp/go";
const QByteArray startupLines = "main main  add new\nopen a log\n";
const QString windowLine = "mainwindow MainWindow  add new";

QString quoted(qint64 number)
{
    return "\"" + QString::number(number) + "\"";
}

QString childReport(qint64 pid, int status, qint64 result)
{
    return "monitor sigchld_handler   child pid:  " + quoted(pid) + "  , status =  " + quoted(status)
        + "  , retv =  " + quoted(result);
}

// The log line without its time stamp and tag.
QString text(const QString& line)
{
    return line.mid(23 + 9);
}

// Whether this process holds the capability to raise a hard limit.
bool mayRaiseLimits()
{
    const int sysResource = 24;
    for (const QByteArray& line : readFile("/proc/self/status").split('\n')) {
        if (line.startsWith("CapEff:"))
            return (line.mid(7).trimmed().toULongLong(nullptr, 16) >> sysResource) & 1;
    }
    return false;
}

QStringList logTexts()
{
    QStringList texts;
    for (const QString& line : logLines())
        texts << text(line);
    return texts;
}

bool logHas(const QString& wanted)
{
    return logTexts().contains(wanted);
}

} // namespace

class tst_daemon : public QObject
{
    Q_OBJECT

private:
    QProcess daemon;

    // With a core-file limit given, the daemon starts under it.
    void start(const QByteArray& coreLimit = QByteArray(), const QStringList& settings = QStringList())
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const QString& setting : settings)
            env.insert(setting.section('=', 0, 0), setting.section('=', 1));
        QDir().mkpath("/tmp/runtime");
        QFile::setPermissions("/tmp/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.insert("XDG_RUNTIME_DIR", "/tmp/runtime");
        daemon.setProcessEnvironment(env);
        const QString program = QString::fromLocal8Bit(qgetenv("DAEMON"));
        if (coreLimit.isEmpty())
            daemon.start(program, QStringList());
        else
            daemon.start("prlimit", {"--core=" + coreLimit, program});
        QVERIFY2(daemon.waitForStarted(), "set DAEMON to the built daemon");
    }

    // The pid the daemon logged for its child.
    qint64 childPid()
    {
        const QRegularExpression started("^monitor startFork  child start as pid:  \"(\\d+)\"$");
        for (const QString& line : logTexts()) {
            const QRegularExpressionMatch match = started.match(line);
            if (match.hasMatch())
                return match.captured(1).toLongLong();
        }
        return -1;
    }

    void expectEnd(const QStringList& endLines)
    {
        QTRY_VERIFY_WITH_TIMEOUT(logHas(endLines.last()), settleMs);
        const QStringList texts = logTexts();
        QCOMPARE(texts.mid(texts.size() - endLines.size()), endLines);
    }

    static QByteArray waitForGo()
    {
        return QByteArray("while [ ! -e ") + goFile + " ]; do sleep 0.02; done\n";
    }

private slots:
    void init()
    {
        sandbox::resetCard();
        for (const char* left : {goFile, "/tmp/child-ran", "/tmp/child-cwd", "/tmp/child-core", "/tmp/child-mask"})
            QFile::remove(left);
    }

    void cleanup()
    {
        // A start that failed half-way can leave pid -1, and kill(-1) as
        // root would end every process of the machine.
        if (daemon.state() != QProcess::NotRunning && daemon.processId() > 0) {
            daemon.kill();
            daemon.waitForFinished();
        }
    }

    void withoutTheCardStartUpFailsWith255_data()
    {
        QTest::addColumn<bool>("cardPresent");
        QTest::addColumn<QByteArray>("reason");
        QTest::newRow("card missing") << false << QByteArray("No such file or directory");
        QTest::newRow("plain file at the log directory") << true << QByteArray("Not a directory");
    }
    void withoutTheCardStartUpFailsWith255()
    {
        QFETCH(bool, cardPresent);
        QFETCH(QByteArray, reason);
        QDir(sandbox::cardDir).removeRecursively();
        if (cardPresent) {
            QDir().mkpath(sandbox::cardDir);
            writeFile(sandbox::logDir, "not a directory");
        }
        sandbox::installChild("#!/bin/sh\ntouch /tmp/child-ran\n");
        start();
        QVERIFY(daemon.waitForFinished(settleMs));
        QCOMPARE(daemon.exitStatus(), QProcess::NormalExit);
        QCOMPARE(daemon.exitCode(), 255);
        QCOMPARE(daemon.readAllStandardError(),
                 startupLines + "open log failed: " + reason + "\n"
                     + "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles\n"
                     + "main main   open log error:  " + reason + "\n");
        QVERIFY(!QFile::exists("/tmp/child-ran"));
        if (cardPresent)
            QCOMPARE(readFile(sandbox::logDir), QByteArray("not a directory"));
    }

    void aRunLogsTheScreenTheChildAndItsEnd()
    {
        QDir(sandbox::logDir).removeRecursively(); // made by the daemon itself
        sandbox::installChild("#!/bin/sh\n" + waitForGo() + "exit 0\n");
        start();
        QTRY_VERIFY_WITH_TIMEOUT(childPid() > 0, settleMs);
        const qint64 pid = childPid();
        QStringList expected;
        for (int i = 0; i < 6; ++i)
            expected << windowLine;
        expected << "monitor startFork  child start as pid:  " + quoted(pid);
        QCOMPARE(logTexts(), expected);
        for (const QString& line : logLines())
            QVERIFY(line.mid(23).startsWith(" <DEBUG> "));

        writeFile(goFile, "");
        expected << childReport(pid, 0, pid) << "monitor sigchld_handler  child exited normally ";
        QTRY_COMPARE_WITH_TIMEOUT(logTexts(), expected, settleMs);
        // The daemon stays, with its screen hidden and nothing to restart.
        QTest::qWait(300);
        QCOMPARE(daemon.state(), QProcess::Running);
        QCOMPARE(logTexts(), expected);
        QCOMPARE(daemon.readAllStandardError(), startupLines);
    }

    void everyKindOfEndIsLogged_data()
    {
        QTest::addColumn<QByteArray>("script");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("endLine");
        const QString exited = "monitor sigchld_handler  child exited normally ";
        const QString signalled = "monitor sigchld_handler  child terminated due to receipt of signal :  ";
        QTest::newRow("exit 1") << QByteArray("exit 1") << 256 << exited;
        QTest::newRow("exit 255") << QByteArray("exit 255") << 65280 << exited;
        QTest::newRow("killed") << QByteArray("kill -KILL $$") << 9 << signalled + quoted(9);
        QTest::newRow("terminated") << QByteArray("kill -TERM $$") << 15 << signalled + quoted(15);
    }
    void everyKindOfEndIsLogged()
    {
        QFETCH(QByteArray, script);
        QFETCH(int, status);
        QFETCH(QString, endLine);
        sandbox::installChild("#!/bin/sh\n" + waitForGo() + script + "\n");
        start();
        QTRY_VERIFY_WITH_TIMEOUT(childPid() > 0, settleMs);
        const qint64 pid = childPid();
        writeFile(goFile, "");
        expectEnd({childReport(pid, status, pid), endLine});
        QCOMPARE(daemon.state(), QProcess::Running);
    }

    void aCrashIsLoggedWithItsSignalAndLeavesItsCoreOnTheCard()
    {
        sandbox::installChild("#!/bin/sh\n" + waitForGo() + "kill -SEGV $$\n");
        start("0:unlimited");
        QTRY_VERIFY_WITH_TIMEOUT(childPid() > 0, settleMs);
        const qint64 pid = childPid();
        writeFile(goFile, "");
        const QString signalLine = "monitor sigchld_handler  child terminated due to receipt of signal :  " + quoted(11);
        QTRY_VERIFY_WITH_TIMEOUT(logHas(signalLine), settleMs);
        const QByteArray pattern = readFile("/proc/sys/kernel/core_pattern").trimmed();
        const bool coreInWorkingDirectory = !pattern.startsWith('|') && !pattern.contains('/');
        if (coreInWorkingDirectory) {
            // 11 with the core-dumped bit.
            expectEnd({childReport(pid, 139, pid), signalLine});
            QVERIFY(!QDir(sandbox::cardDir).entryList({"core*"}, QDir::Files).isEmpty());
        } else {
            qWarning("core_pattern %s sends cores elsewhere; only the signal is checked", pattern.constData());
            QVERIFY(logHas(childReport(pid, 139, pid)) || logHas(childReport(pid, 11, pid)));
        }
    }

    void aMissingProgramIsReportedByTheChildWhichEndsAt127()
    {
        QFile::remove(sandbox::childProgram);
        start();
        const QString failed = "monitor startFork  execl failed:  No such file or directory";
        QTRY_VERIFY_WITH_TIMEOUT(logHas("monitor sigchld_handler  child exited normally "), settleMs);
        const qint64 pid = childPid();
        QVERIFY(pid > 0);
        const QStringList texts = logTexts();
        // The child's own line and the parent's start line race; the end
        // comes after both.
        QCOMPARE(texts.count(failed), 1);
        QCOMPARE(texts.count(windowLine), 6);
        QCOMPARE(texts.mid(texts.size() - 2),
                 QStringList({childReport(pid, 127 * 256, pid), "monitor sigchld_handler  child exited normally "}));
        QCOMPARE(texts.size(), 6 + 2 + 2);
        QCOMPARE(daemon.state(), QProcess::Running);
    }

    void theChildStartsOnTheCardWithCoresAllowedAndNoSignalBlocked_data()
    {
        QTest::addColumn<QByteArray>("limit");
        QTest::addColumn<QByteArray>("childLimit");
        QTest::newRow("none allowed, no ceiling: raised") << QByteArray("0:unlimited") << QByteArray("unlimited unlimited");
        QTest::newRow("some allowed: kept") << QByteArray("1024:4096") << QByteArray("1024 4096");
    }
    void theChildStartsOnTheCardWithCoresAllowedAndNoSignalBlocked()
    {
        QFETCH(QByteArray, limit);
        QFETCH(QByteArray, childLimit);
        QFile::remove(sandbox::childProgram);
        QVERIFY(QFile::copy(QString::fromLocal8Bit(qgetenv("PROBE_CHILD")), sandbox::childProgram));
        start(limit);
        QTRY_VERIFY_WITH_TIMEOUT(readFile("/tmp/child-mask").endsWith('\n') && childPid() > 0, settleMs);
        QCOMPARE(readFile("/tmp/child-cwd"), QByteArray("/tmp/mnt/dev/mmcblk0p3\n"));
        QCOMPARE(readFile("/tmp/child-core"), childLimit + "\n");
        QCOMPARE(readFile("/tmp/child-mask"), QByteArray("SigBlk:\t0000000000000000\n"));
        const QString pidDir = "/proc/" + QString::number(daemon.processId());
        QCOMPARE(QFileInfo(pidDir + "/cwd").symLinkTarget(), QString("/tmp/mnt/dev/mmcblk0p3"));
        writeFile(goFile, "");
    }

    // Raising a finite hard limit takes CAP_SYS_RESOURCE, which container
    // roots often lack: without it the launch stops before any child.
    void aCeilingOnCoresIsRaisedOnlyWithTheRightToDoSo()
    {
        QFile::remove(sandbox::childProgram);
        QVERIFY(QFile::copy(QString::fromLocal8Bit(qgetenv("PROBE_CHILD")), sandbox::childProgram));
        start("0:4096");
        QTRY_VERIFY_WITH_TIMEOUT(logTexts().size() >= 6 + 1, settleMs);
        if (mayRaiseLimits()) {
            QTRY_COMPARE_WITH_TIMEOUT(readFile("/tmp/child-core"), QByteArray("unlimited unlimited\n"), settleMs);
            writeFile(goFile, "");
            return;
        }
        QTest::qWait(300);
        QCOMPARE(logTexts().last(), QString("monitor startFork  setrlimit RLIMIT_CORE failed:  Operation not permitted"));
        QCOMPARE(logTexts().size(), 6 + 1);
        QVERIFY(!QFile::exists("/tmp/child-core"));
        QCOMPARE(daemon.state(), QProcess::Running);
        const QString pidDir = "/proc/" + QString::number(daemon.processId());
        QCOMPARE(QFileInfo(pidDir + "/cwd").symLinkTarget(), QDir::currentPath());
    }

    void aStoppedChildIsReportedButNotAsAnEnd()
    {
        sandbox::installChild("#!/bin/sh\nexec sleep 60\n");
        start();
        QTRY_VERIFY_WITH_TIMEOUT(childPid() > 0, settleMs);
        const qint64 pid = childPid();
        QCOMPARE(kill(pid_t(pid), SIGSTOP), 0);
        QTRY_COMPARE_WITH_TIMEOUT(logTexts().count(childReport(pid, 0, 0)), 1, settleMs);
        QCOMPARE(kill(pid_t(pid), SIGCONT), 0);
        QTRY_COMPARE_WITH_TIMEOUT(logTexts().count(childReport(pid, 0, 0)), 2, settleMs);
        QCOMPARE(logTexts().size(), 6 + 1 + 2);
        QCOMPARE(kill(pid_t(pid), SIGKILL), 0);
        expectEnd({childReport(pid, 9, pid),
                   "monitor sigchld_handler  child terminated due to receipt of signal :  " + quoted(9)});
    }

    // Neither Qt's logging rules nor the live file taken away behind the
    // daemon keep the child's end out of the live file.
    void theChildsEndReachesTheLiveFile_data()
    {
        QTest::addColumn<QStringList>("settings");
        QTest::addColumn<QByteArray>("rulesFile");
        QTest::addColumn<QString>("movedTo");
        QTest::addColumn<int>("earlierLines");
        const QByteArray silent = "[Rules]\n*=false\n";
        const QString moved = QString(sandbox::logDir) + "/collected.log";
        QTest::newRow("rules in the environment")
            << QStringList("QT_LOGGING_RULES=*.debug=false;*.warning=false;*.critical=false") << QByteArray() << QString() << 7;
        QTest::newRow("rules in the user's qtlogging.ini")
            << QStringList("XDG_CONFIG_HOME=/tmp/config") << silent << QString() << 7;
        QTest::newRow("rules in QT_LOGGING_CONF")
            << QStringList("QT_LOGGING_CONF=/tmp/config/QtProject/qtlogging.ini") << silent << QString() << 7;
        QTest::newRow("live file deleted") << QStringList() << QByteArray() << QString("deleted") << 0;
        QTest::newRow("live file renamed") << QStringList() << QByteArray() << moved << 0;
    }
    void theChildsEndReachesTheLiveFile()
    {
        QFETCH(QStringList, settings);
        QFETCH(QByteArray, rulesFile);
        QFETCH(QString, movedTo);
        QFETCH(int, earlierLines);
        QDir("/tmp/config").removeRecursively();
        if (!rulesFile.isEmpty()) {
            QDir().mkpath("/tmp/config/QtProject");
            writeFile("/tmp/config/QtProject/qtlogging.ini", rulesFile);
        }
        sandbox::installChild("#!/bin/sh\n" + waitForGo() + "exit 0\n");
        start(QByteArray(), settings);
        QTRY_VERIFY_WITH_TIMEOUT(childPid() > 0, settleMs);
        const qint64 pid = childPid();
        if (movedTo == "deleted") {
            QVERIFY(QFile::remove(sandbox::livePath));
        } else if (!movedTo.isEmpty()) {
            QVERIFY(QFile::rename(sandbox::livePath, movedTo));
            // The name is looked up at most once a second.
            QTest::qWait(1100);
        }
        writeFile(goFile, "");
        expectEnd({childReport(pid, 0, pid), "monitor sigchld_handler  child exited normally "});
        QCOMPARE(logTexts().size(), earlierLines + 2);
        if (movedTo.startsWith('/'))
            QCOMPARE(logLines(movedTo).size(), 7);
    }

    void aFullCardLosesRecordsUntilSpaceIsFreed()
    {
        QVERIFY(sandbox::mountSmallCard(64));
        QDir().mkpath(sandbox::logDir);
        {
            QFile filler(QString(sandbox::cardDir) + "/filler");
            QVERIFY(filler.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
            while (filler.write(QByteArray(4096, 'f')) > 0) {
            }
        }
        sandbox::installChild("#!/bin/sh\n" + waitForGo() + "exit 3\n");
        start();
        const QByteArray lost = "write to log failed: No space left on device\n"
                                "main onShowMsg   write log error:  No space left on device\n";
        QByteArray err;
        // Six screen messages and the child's start, all lost.
        QTRY_VERIFY_WITH_TIMEOUT((err += daemon.readAllStandardError()).count(lost) == 7, settleMs);
        QCOMPARE(err, startupLines + lost.repeated(7));
        QVERIFY(QFile::remove(QString(sandbox::cardDir) + "/filler"));
        writeFile(goFile, "");
        QTRY_VERIFY_WITH_TIMEOUT(logHas("monitor sigchld_handler  child exited normally "), settleMs);
        QCOMPARE(logTexts().size(), 2);
        QVERIFY(logTexts().first().contains(" , status =  " + quoted(768)));
        QCOMPARE(daemon.state(), QProcess::Running);
        cleanup();
        sandbox::unmountCard();
    }
};

SANDBOXED_TEST_MAIN(tst_daemon)
#include "tst_daemon.moc"
