// Replays the golden transcripts of the folder TRANSCRIPTS names, as
// tests/golden/README.md describes them.
#include "OutputControl.h"
#include "controller.h"
#include "main.h"
#include "monitor.h"
#include "privateTree.h"
#include "shutLog.h"
#include "shutMyGpio.h"
#include "shutSerial.h"
#include "shutSerialObject.h"
#ifdef WITH_SCREEN
#include "mainwindow.h"
#include <QtWidgets>
#endif

#include <QtTest>

using controller::escaped;
using controller::unescaped;

#include <csignal>
#include <functional>
#include <memory>
#include <utility>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <sys/mount.h>
#include <unistd.h>

typedef QList<QByteArray> Lines;

#ifdef __SANITIZE_ADDRESS__
extern "C" size_t __sanitizer_get_current_allocated_bytes(); // GCC ships no header for it
size_t heapInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
size_t heapInUse()
{
    const struct mallinfo2 heap = mallinfo2();
    return heap.uordblks + heap.hblkhd;
}
#endif

namespace {

// A record's time, shown as T when it is the last minute's in UTC.
const QRegularExpression recordTime("\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}");
// The launcher's child's pid, kept as PID.
const QRegularExpression childPid("(pid: +|retv = +)\"[1-9]\\d*\"");

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Each line after the stream's number, its record times masked.
Lines outputLines(char stream, const QByteArray& text)
{
    Lines lines = text.isEmpty() ? Lines() : text.split('\n');
    if (text.endsWith('\n'))
        lines.removeLast();
    for (QByteArray& line : lines) {
        QString shown = QString::fromUtf8(line);
        for (QRegularExpressionMatchIterator it = recordTime.globalMatch(shown); it.hasNext();) {
            const QString found = it.next().captured();
            QDateTime when = QDateTime::fromString(found, "yyyy.MM.dd hh:mm:ss.zzz");
            when.setTimeSpec(Qt::UTC);
            if (qAbs(when.secsTo(QDateTime::currentDateTimeUtc())) < 60)
                shown.replace(found, "T");
        }
        line = stream + (" " + escaped(shown.toUtf8()));
    }
    return lines;
}

QMutex messagesLock;
Lines messages;

void keepMessage(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    const QString shown = QString(text).replace(childPid, "\\1\"PID\"");
    QMutexLocker locked(&messagesLock);
    messages << (type == QtWarningMsg ? "W " : "D ") + escaped(shown.toUtf8());
}

Lines takeMessages()
{
    QMutexLocker locked(&messagesLock);
    return std::exchange(messages, Lines());
}

// What run writes to standard output and error, as 1 and 2 lines.
Lines outputOf(const std::function<void()>& run)
{
    int saved[3], files[3];
    fflush(nullptr);
    for (int stream : {1, 2}) {
        saved[stream] = dup(stream);
        files[stream] = open("/tmp", O_TMPFILE | O_RDWR, 0600);
        dup2(files[stream], stream);
    }
    run();
    fflush(nullptr);
    Lines lines;
    for (int stream : {1, 2}) {
        dup2(saved[stream], stream);
        close(saved[stream]);
        lines << outputLines('0' + stream, readFile(QString("/proc/self/fd/%1").arg(files[stream])));
        close(files[stream]);
    }
    return lines;
}

// The SIGCHLD handler a launch installs is taken back: the shell needs Qt's.
struct ChildHandlerKept {
    struct sigaction kept;
    ChildHandlerKept() { sigaction(SIGCHLD, nullptr, &kept); }
    ~ChildHandlerKept() { sigaction(SIGCHLD, &kept, nullptr); }
};

QByteArray quoted(const std::string& text)
{
    return "\"" + escaped(QByteArray::fromStdString(text)) + "\"";
}

} // namespace

class tst_transcripts : public QObject
{
    Q_OBJECT

    std::vector<std::unique_ptr<controller::Controller>> controllers;
    std::unique_ptr<shutSerial> port;
    std::unique_ptr<shutSerialObject> link;
    std::unique_ptr<shutMyGpio> watcher;
    std::unique_ptr<shutLog> log;
    QProcess shell;
    int valueFd = -1;

    Lines results; // the step's, each shown after "= " (a shell's as they come)

    controller::Controller& printer() { return *controllers.back(); }

    // One shell for the whole transcript, so that its variables carry from step to step.
    void sh(const QByteArray& command)
    {
        if (shell.state() == QProcess::NotRunning) {
            shell.setProcessChannelMode(QProcess::MergedChannels);
            shell.start(QFile::exists("/bin/bash") ? "/bin/bash" : "/bin/sh", QStringList());
            QVERIFY(shell.waitForStarted());
            // The steps' functions; in the test machine, from inside the program.
            const QByteArray steps = qgetenv("STEPS");
            shell.write(readFile(steps.isEmpty() ? ":/steps.sh" : QString(steps)) + "\n");
        }
        shell.write("{ " + command + "\n} </dev/null 2>&1; echo \"\x01$?\"\n");
        QByteArray out;
        while (shell.state() == QProcess::Running && !(out.contains('\x01') && out.endsWith('\n'))) {
            shell.waitForReadyRead(100);
            out += shell.readAll();
        }
        const int status = out.mid(out.indexOf('\x01') + 1).toInt();
        results << outputLines('1', out.left(out.indexOf('\x01')));
        if (status)
            results << "= status " + QByteArray::number(status);
    }

    void step(const QByteArray& name, const Lines& args, const QByteArray& rest)
    {
        const int n = args.value(0).toInt();
        const QByteArray arg1 = unescaped(rest.mid(rest.indexOf(' ') + 1));
        std::string text = unescaped(rest).toStdString();
        if (name == "sh") {
            sh(rest);
        } else if (name == "controller") {
            controllers.emplace_back(new controller::Controller("/dev/ttyO1"));
            printer().start();
        } else if (name == "reply") {
            controller::Reply reply;
            reply.pauseMs = n;
            for (const QByteArray& chunk : rest.mid(args[0].size() + 1).split('|'))
                if (!chunk.isEmpty())
                    reply.chunks << unescaped(chunk);
            printer().queue(reply);
        } else if (name == "slots" || name == "zero-polls" || name == "echo" || name == "write" || name == "hang-up") {
            name == "slots" ? printer().setFreeSlots(n) : name == "echo" ? printer().echoAfter(n) : name == "zero-polls" ? printer().zeroPolls(n)
                : name == "write" ? printer().write(unescaped(rest)) : printer().hangUp();
        } else if (name == "port") {
            port.reset(); // the settings it restores are not the next port's
            port.reset(new shutSerial(text));
        } else if (name == "open" || name == "close" || name == "send") {
            const int result = name == "open" ? port->open() : name == "close" ? port->close() : port->send(text);
            results << QByteArray::number(result) + (result < 0 ? " " + QByteArray::fromStdString(port->errmsg()) : "");
        } else if (name == "recv") {
            std::string line;
            const int length = port->recv(line);
            results << QByteArray::number(length) + " " + quoted(line);
        } else if (name == "drain" || name == "sent") {
            results << quoted(name == "drain" ? port->cleanSerialBuff() : port->codeSent());
        } else if (name == "link") {
            link.reset();
            link.reset(new shutSerialObject);
        } else if (name == "code") {
            results << quoted(link->serialSendCode(QString::fromStdString(text)).toStdString());
        } else if (name == "parse") {
            int count = 99;
            const int parsed = shutSerialObject::parseResult(text, count);
            results << QByteArray::number(parsed) + " " + QByteArray::number(count);
        } else if (name == "poll-gaps") {
            const QStringList sent = printer().commands();
            for (int i = 1; i < sent.size(); ++i)
                if (sent[i] == "M117" && sent[i - 1] == "M117")
                    results << (printer().arrivalsMs()[i] - printer().arrivalsMs()[i - 1] >= 80 ? "80 ms or more" : "sooner");
        } else if (name == "two-links") {
            // Two threads' links sending numbered commands, each echoed after a pause.
            controller::Controller echoing("/dev/ttyO1");
            echoing.echoAfter(2);
            echoing.start();
            QAtomicInt mismatches;
            shutSerialObject links[2];
            auto drive = [&](int side) {
                for (int i = 0; i < n; ++i) {
                    const QString command = QString("LR"[side]) + QString::number(i);
                    mismatches.fetchAndAddRelaxed(links[side].serialSendCode(command) != "ok 5 " + command);
                }
            };
            std::thread left(drive, 0);
            drive(1);
            left.join();
            takeMessages();
            results << QString("%1 mismatches, %2 commands%3").arg(mismatches.load()).arg(echoing.commands().size())
                        .arg(echoing.overlapped() ? ", overlapped" : "").toUtf8();
        } else if (name == "debug-switch") {
            OutputControl debugSwitch;
            results << "'" + escaped(QString(debugSwitch.getValue("outSerial")).toUtf8()) + "' " + (debugSwitch.isSerialObjOutPut() ? "on" : "off");
        } else if (name == "cat") {
            results << quoted(readFile(args[0]).toStdString());
        } else if (name.startsWith("gpio_")) {
            // Through the watcher's members, which add messages to the results.
            if (!watcher)
                watcher.reset(new shutMyGpio);
            shutMyGpio& w = *watcher;
            const std::string a = arg1.toStdString();
            unsigned int level = 5;
            const int r = name == "gpio_export" ? w.gpio_export(n)
                : name == "gpio_unexport" ? w.gpio_unexport(n)
                : name == "gpio_set_direction" ? w.gpio_set_direction(n, a)
                : name == "gpio_set_value" ? w.gpio_set_value(n, arg1.toUInt())
                : name == "gpio_get_value" ? w.gpio_get_value(n, &level)
                : name == "gpio_set_edge" ? w.gpio_set_edge(n, a)
                : w.gpio_open(n);
            if (name == "gpio_open" && r >= 0)
                close(r);
            results << (name == "gpio_open" && r >= 0 ? "open" : QByteArray::number(r) + (name == "gpio_get_value" ? " " + QByteArray::number(level) : ""));
        } else if (name == "as-nobody") {
            // access() judges by the real user, for whom root's rights do not count.
            QVERIFY(setresuid(65534, 0, 0) == 0);
            step(args[0], args.mid(1), "");
            QVERIFY(setresuid(0, 0, 0) == 0);
        } else if (name == "mounts") {
            std::vector<shutMyGpio::mount_point_t> list(3);
            results << QByteArray::number(shutMyGpio().get_mount_list(list));
            for (const shutMyGpio::mount_point_t& mount : list)
                results << escaped((mount.device + "|" + mount.mount_dir + "|" + mount.fs_type).toUtf8());
        } else if (name == "poweroff") {
            results << QByteArray::number(shutMyGpio().do_poweroff_process());
        } else if (name == "watcher") {
            // A fresh watcher; each wake reads its level from the start of one
            // file, which the shell's level step writes.
            watcher.reset(new shutMyGpio);
            connect(watcher.get(), &shutMyGpio::sig_shutDown, [] { qDebug("[sig_shutDown]"); });
            connect(watcher.get(), &shutMyGpio::sig_pollOn, [] { qDebug("[sig_pollOn]"); });
            close(valueFd);
            valueFd = open("/tmp/value", O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
        } else if (name == "wake") {
            // Or from what is named, such as a folder, which cannot be read.
            const int from = rest.isEmpty() ? valueFd : open(rest, O_RDONLY | O_CLOEXEC);
            results << QByteArray::number(watcher->handleWake(from));
            if (from != valueFd)
                close(from);
        } else if (name == "log") {
            log.reset(new shutLog(args[0].constData(), logFileName, args[1].toInt(), args[2].toInt()));
        } else if (name == "open-log" || name == "close-log" || name == "size") {
            results << QByteArray::number(name == "open-log" ? log->openLog() : name == "close-log" ? log->closeLog() : log->getFileSize());
        } else if (name == "save") {
            results << QByteArray::number(log->saveLog(QtMsgType(n), QMessageLogContext("file.cpp", 7, "fn", "cat"), QString::fromUtf8(arg1)));
        } else if (name == "save-huge") {
            // Written whole, it leaves no buffer of its size behind.
            const size_t before = heapInUse();
            const int saved = log->saveLog(QtDebugMsg, QMessageLogContext(), QString(n << 20, QChar('h')));
            results << QByteArray::number(saved) + (heapInUse() < before + (1 << 20) ? ", under 1 MiB kept" : ", its buffer kept");
        } else if (name == "threads") {
            logFlag = log.get();
            qInstallMessageHandler(onShowMsg);
            std::vector<std::thread> writers;
            for (int t = 0; t < n; ++t)
                writers.emplace_back([t, &args] {
                    for (int i = 0; i < args[1].toInt(); ++i)
                        qDebug() << "thread" << t << "record" << i;
                });
            for (std::thread& writer : writers)
                writer.join();
            qInstallMessageHandler(keepMessage);
            logFlag = nullptr;
            log.reset();
        } else if (name == "forks") {
            // A thread logs without pause, started with SIGCHLD held as Qt's
            // threads are in the daemon, while children whose program is missing come and go.
            ChildHandlerKept kept;
            logFlag = new shutLog(logDirectory, logFileName, 1 << 30, logOlderFiles);
            qInstallMessageHandler(onShowMsg);
            // The first strerror loads the C library's messages: here, not in a child
            // forked while the busy thread holds AddressSanitizer's allocator lock.
            strerror(ENOENT);
            std::atomic<bool> stop(false);
            sigset_t mask;
            holdChildSignal();
            std::thread busy([&] {
                pthread_sigmask(SIG_BLOCK, nullptr, &mask);
                while (!stop)
                    qDebug() << "busy";
            });
            int mine = 0;
            QElapsedTimer waited;
            // Each child in turn, the main thread logging until the child is reaped (its pid
            // gone) and its end logged; a launch that fails shows in the counts.
            for (int round = 0; round < n && startFork() == 0; ++round) {
                const pid_t child = g_pid;
                for (waited.start(); kill(child, 0) == 0 && !waited.hasExpired(10000); QCoreApplication::processEvents())
                    qDebug() << "main" << mine++;
                QCoreApplication::processEvents();
            }
            stop = true;
            busy.join();
            qInstallMessageHandler(keepMessage);
            delete logFlag;
            logFlag = nullptr;
            results << (sigismember(&mask, SIGCHLD) ? "SIGCHLD held by the busy thread" : "SIGCHLD open in the busy thread");
#ifdef WITH_SCREEN
        } else if (name == "screen") {
            // Built as the daemon builds it, with the child program it starts.
            ChildHandlerKept kept;
            MainWindow window;
            QPushButton* button = window.findChild<QPushButton*>("pushButton");
            button->click();
            bool shown = false;
            for (QWindow* top : QGuiApplication::allWindows())
                shown = shown || top->isVisible();
            // Until the child is reaped (its pid gone), then its end logged.
            QTRY_VERIFY_WITH_TIMEOUT(kill(g_pid, 0) != 0, 10000);
            QCoreApplication::processEvents();
            const QImage picture = window.view->grab().toImage();
            QVERIFY(qgetenv("FAULT_SCREEN_PNG").isEmpty() || picture.save(qgetenv("FAULT_SCREEN_PNG")));
            results << escaped(window.label->text().toUtf8()) << button->text().toUtf8()
                    << (window.accepted ? "accepted, " : "") + QByteArray(shown ? "shown" : "hidden")
                    << (window.view->windowFlags() == (Qt::FramelessWindowHint | Qt::Window) ? "frameless" : "framed")
                    << (window.view->testAttribute(Qt::WA_TranslucentBackground) ? "translucent" : "opaque")
                    << QByteArray::number(picture.width()) + "x" + QByteArray::number(picture.height());
            // A point of the window where it lands in the view's picture.
            const int frame = window.view->frameWidth();
            for (int i = 0; i + 1 < args.size(); i += 2) {
                const QPoint at = window.view->mapFromScene(QPointF(args[i].toInt(), args[i + 1].toInt())) + QPoint(frame, frame);
                results << args[i] + "," + args[i + 1] + " at " + QByteArray::number(at.x()) + "," + QByteArray::number(at.y())
                            + " " + QColor(picture.pixel(at)).name().toUtf8();
            }
            int white = 0;
            for (int x = 120; x < 320; ++x)
                for (int y = 100; y < 150; ++y) {
                    const QPoint at = window.view->mapFromScene(QPointF(x, y)) + QPoint(frame, frame);
                    white += picture.rect().contains(at) && QColor(picture.pixel(at)) == Qt::white;
                }
            results << (white > 50 ? "white text in the label" : "no text in the label");
#endif
        } else {
            QFAIL("no such step: " + name);
        }
    }

private slots:
    void initTestCase()
    {
        // The main thread alone takes SIGCHLD, as in the daemon.
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        qInstallMessageHandler(keepMessage);
        // SIGUSR1 cuts a wait short (interrupt_read in the steps).
        struct sigaction noRestart = {};
        noRestart.sa_handler = [](int) {};
        sigaction(SIGUSR1, &noRestart, nullptr);
    }

    void replay_data()
    {
        QTest::addColumn<QString>("path");
        const QString folder = qgetenv("TRANSCRIPTS").isEmpty() ? ":/golden" : qgetenv("TRANSCRIPTS");
        for (const QFileInfo& file : QDir(folder).entryInfoList({"*.txt"}))
            QTest::newRow(qPrintable(file.baseName())) << file.absoluteFilePath();
    }

    void replay()
    {
        QFETCH(QString, path);
        Lines expected;
        Lines actual;
        const QByteArray transcript = readFile(path);
        QVERIFY2(("\n" + transcript).contains("\n> "), qPrintable(path + " holds no step"));
        // Fresh trees over the previous transcript's, which a launch may have
        // made the working directory; the test machine has no /opt of its own.
        QVERIFY(QDir::setCurrent("/") && QDir().mkpath("/opt"));
        QVERIFY(privateTree::mountTmpfs("/tmp", "mode=1777") && privateTree::mountTmpfs("/opt", "mode=755"));
        QVERIFY(QDir().mkpath(logDirectory) && QDir().mkpath("/opt/project"));
        for (const QByteArray& line : transcript.split('\n')) {
            if (line.isEmpty() || line.startsWith('#'))
                continue;
            expected << line;
            if (!line.startsWith("> "))
                continue;
            actual << line;
            const QByteArray name = line.mid(2).split(' ').first();
            const QByteArray rest = line.mid(name.size() + 3);
            results.clear();
            const Lines output = outputOf([&] { step(name, rest.split(' '), rest); });
            for (const QByteArray& result : results)
                actual << (name == "sh" ? result : "= " + result);
            actual << output << takeMessages();
            if (QTest::currentTestFailed())
                break;
        }
        while (!controllers.empty()) {
            actual << "wire \"" + escaped(printer().wire()) + "\"";
            controllers.pop_back();
        }
        shell.closeWriteChannel();
        shell.waitForFinished();
        port.reset();
        link.reset();
        watcher.reset();
        log.reset();
        umount2("/proc/mounts", MNT_DETACH);
        umount2("/tmp", MNT_DETACH);
        umount2("/opt", MNT_DETACH);
        if (actual != expected || QTest::currentTestFailed())
            fprintf(stderr, "%s as replayed:\n%s\n", qPrintable(path), actual.join('\n').constData());
        QCOMPARE(actual, expected);
    }
};

int main(int argc, char** argv)
{
#ifndef IN_TEST_MACHINE
    // A /dev of its own, where /dev/ttyO1 may be a pseudo-terminal's slave.
    if (!privateTree::enter() || !privateTree::privateDev())
        return 1;
#endif
    // Qt's threads, Qt Test's watchdog too, hold SIGCHLD, as in the daemon.
    holdChildSignal();
#ifdef WITH_SCREEN
    QApplication app(argc, argv);
#else
    QCoreApplication app(argc, argv);
#endif
    tst_transcripts test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_transcripts.moc"
