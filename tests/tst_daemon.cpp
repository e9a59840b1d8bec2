// The built daemon as a process, replayed from the scenarios in
// golden/daemon/ (golden/daemon/README describes them).
#include "sandbox.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QtTest>

#include <sys/mount.h>

using sandbox::readFile;

class tst_daemon : public QObject
{
    Q_OBJECT
    QProcess daemon;
    QString childPid;
    QByteArray err;
    bool ended = false;

    static QString onCard(const QString& path) { return path.startsWith('/') ? path : sandbox::cardDir + ("/" + path); }
    // What a file or standard error holds, times as T and the child's pid as PID.
    QString shown(const QString& what)
    {
        QString text = QString::fromUtf8(what == "stderr" ? err += daemon.readAllStandardError() : readFile(onCard(what.section(' ', 0, 0))));
        text.replace(QRegularExpression(QString("^") + sandbox::recordTime + " ", QRegularExpression::MultilineOption), "T ");
        const QRegularExpressionMatch start = QRegularExpression("child (?:start as )?pid: +\"(\\d+)\"").match(text);
        childPid = start.hasMatch() ? start.captured(1) : childPid;
        return inOrder(what, childPid.isEmpty() ? text : text.replace('"' + childPid + '"', "\"PID\""));
    }
    static QString inOrder(const QString& what, const QString& text)
    {
        QStringList lines = text.split('\n');
        lines.sort(); // the empty piece after the last line first
        return what.endsWith(" sorted") ? lines.mid(1).join('\n') + '\n' : text;
    }

    bool awaitLines(const QString& what, int lines)
    {
        return QTest::qWaitFor([&] { return shown(what).count('\n') >= lines; }, 10000);
    }

    void act(const QString& verb, const QString& arg)
    {
        if (verb == "child") {
            sandbox::installChild("#!/bin/sh\nwait_go() { while [ ! -e /tmp/go ]; do sleep 0.02; done; }\n" + arg.toUtf8());
        } else if (verb == "sh") {
            qputenv("CHILD", childPid.toLatin1());
            QCOMPARE(QProcess::execute("/bin/sh", {"-c", "cd " + onCard("") + " 2>/dev/null; " + arg}), 0);
        } else if (verb == "start") {
            const QStringList command = (arg + ' ' + qgetenv("DAEMON")).trimmed().split(' ');
            daemon.start(command.first(), command.mid(1));
            QVERIFY2(daemon.waitForStarted(), "set DAEMON to the built daemon");
        } else if (verb == "await") {
            QVERIFY(awaitLines(arg.section(' ', 1).isEmpty() ? sandbox::livePath : arg.section(' ', 1), arg.section(' ', 0, 0).toInt()));
        } else if (verb == "exit") {
            ended = daemon.waitForFinished(10000);
            QVERIFY(ended);
            QCOMPARE(daemon.exitCode(), arg.toInt());
        } else {
            QFAIL(qPrintable("unknown step " + verb));
        }
    }

private slots:
    void scenario_data()
    {
        QTest::addColumn<QString>("file");
        for (const QString& name : QDir(GOLDEN "/daemon").entryList({"*.txt"}))
            QTest::newRow(qPrintable(name)) << GOLDEN "/daemon/" + name;
    }
    void scenario()
    {
        QFETCH(QString, file);
        QMap<QString, QString> expected; // "stderr" or a file, and what it must hold
        QString section;
        for (const QString& line : QString::fromUtf8(readFile(file)).split('\n')) {
            if (line.startsWith("== "))
                expected[section = line.mid(3)];
            else if (!section.isEmpty() && !line.isEmpty())
                expected[section] += line + '\n';
            else if (line.startsWith("> ")) {
                act(line.mid(2).section(' ', 0, 0), line.mid(2).section(' ', 1));
                if (QTest::currentTestFailed())
                    return;
            }
        }
        for (const QString& what : expected.keys())
            awaitLines(what, expected[what].count('\n'));
        // Whatever else the daemon would do, it has done once it is gone.
        if (!ended) {
            QCOMPARE(daemon.state(), QProcess::Running); // it stays, whatever its child did
            daemon.kill();
            QVERIFY(daemon.waitForFinished());
        }
        for (const QString& what : expected.keys())
            QCOMPARE(shown(what), inOrder(what, expected[what]));
    }

    void initTestCase()
    {
        QDir().mkpath("/tmp/runtime");
        QVERIFY(QFile::setPermissions("/tmp/runtime", QFile::ExeOwner | QFile::ReadOwner | QFile::WriteOwner));
        qputenv("XDG_RUNTIME_DIR", "/tmp/runtime");
    }
    void init()
    {
        sandbox::resetCard();
        for (const QString& made : QDir("/tmp").entryList({"child-*", "go"}))
            QFile::remove("/tmp/" + made);
        childPid.clear(), err.clear(), ended = false;
    }
    void cleanup()
    {
        // A start that failed half-way can leave pid -1, and kill(-1) as
        // root would end every process of the machine.
        if (daemon.state() != QProcess::NotRunning && daemon.processId() > 0)
            daemon.kill(), daemon.waitForFinished();
        sandbox::writeFile("/tmp/go", ""); // a child left waiting ends
        umount2(sandbox::cardDir, MNT_DETACH);
    }
};

SANDBOXED_TEST_MAIN(tst_daemon)
#include "tst_daemon.moc"
