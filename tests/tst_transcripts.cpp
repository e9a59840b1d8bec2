// Replays the golden transcripts of the components: the serial port and the
// printer command link against a simulated controller on a real
// pseudo-terminal, the debug switch, the sysfs GPIO functions on a tmpfs
// tree, the mount table and the power-signal watcher (on the test machine's
// kernel, tests/kernel). A transcript is a list of steps ("> step ARGS")
// each followed by what it must give: "= " its result, "1 " and "2 " its
// standard output and error, "D " and "W " the Qt messages it raised, at the
// end "wire " what each controller received. Bytes are written with \r, \n,
// \t, \\, \xHH, and X\{N} for N bytes X in a row. Once a watcher runs on a
// thread of its own ("> start"), its messages (tagged with its number) are
// given by "> await COUNT PREFIX" and "> quiet", its standard error by
// "> errors" (the distinct lines).
#include "OutputControl.h"
#include "controller.h"
#include "privateTree.h"
#include "sandbox.h"
#include "shutMyGpio.h"
#include "shutSerial.h"
#include "shutSerialObject.h"
#include "sysfsGpio.h"

#include <QtTest>

#include <algorithm>
#include <csignal>
#include <functional>
#include <cstring>
#include <memory>
#include <thread>

#include <fcntl.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <termios.h>
#include <unistd.h>

using sandbox::readFile;
using sandbox::writeFile;
typedef QList<QByteArray> Lines;

#define CHECK(condition)                                                              \
    do {                                                                              \
        if (!QTest::qVerify(bool(condition), #condition, "", __FILE__, __LINE__))     \
            return Lines();                                                           \
    } while (0)

namespace {

const char specials[] = "\r\n\t\\";
const char names[] = "rnt\\";

bool waitFor(const std::function<bool()>& ready, int timeoutMs = 10000)
{
    QElapsedTimer waited;
    waited.start();
    while (!ready() && waited.elapsed() < timeoutMs)
        QTest::qWait(5);
    return ready();
}

QByteArray escaped(const QByteArray& bytes)
{
    QByteArray text;
    for (int i = 0; i < bytes.size(); ++i) {
        const uchar c = uchar(bytes[i]);
        const char* special = c ? strchr(specials, c) : nullptr;
        if (special)
            text += QByteArray("\\") + names[special - specials];
        else if (c < 0x20 || c == 0x7f)
            text += "\\x" + QByteArray::number(c + 0x100, 16).mid(1);
        else
            text += char(c);
        int run = 1;
        while (i + run < bytes.size() && bytes[i + run] == bytes[i])
            ++run;
        if (run >= 16) {
            text += "\\{" + QByteArray::number(run) + "}";
            i += run - 1;
        }
    }
    // Kept visible at the end of a line.
    return text.endsWith(' ') ? text.left(text.size() - 1) + "\\x20" : text;
}

QByteArray unescaped(const QByteArray& text)
{
    QByteArray bytes;
    for (int i = 0; i < text.size(); ++i) {
        const char next = i + 1 < text.size() ? text[i + 1] : '\0';
        if (text[i] != '\\' || !next || !strchr("rnt\\x{", next)) {
            bytes += text[i];
        } else if (next == 'x') {
            bytes += char(text.mid(i + 2, 2).toInt(nullptr, 16));
            i += 3;
        } else if (next == '{') {
            const int end = text.indexOf('}', i);
            bytes += QByteArray(text.mid(i + 2, end - i - 2).toInt() - 1, bytes[bytes.size() - 1]);
            i = end;
        } else {
            bytes += specials[strchr(names, next) - names];
            ++i;
        }
    }
    return bytes;
}

struct Message {
    QThread* thread;
    QByteArray line;
};
QMutex messagesLock;
QList<Message> messages;

void keepMessage(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    QMutexLocker locked(&messagesLock);
    messages.append({QThread::currentThread(), (type == QtWarningMsg ? "W " : "D ") + escaped(text.toUtf8())});
}

// A watcher's run on a thread of its own; never destroyed, as run never returns.
struct Running {
    QThread thread;
    std::atomic<pid_t> tid{0};
    pthread_t handle = pthread_t();
};
QList<Running*> running;
volatile sig_atomic_t interrupted = 0;

// The processor time a watcher's thread has used, in nanoseconds.
qint64 cpuNs(const Running* run)
{
    clockid_t clock;
    timespec used = {};
    if (pthread_getcpuclockid(run->handle, &clock) == 0)
        clock_gettime(clock, &used);
    return used.tv_sec * 1000000000LL + used.tv_nsec;
}

int indexOf(QThread* thread)
{
    for (int i = 0; i < running.size(); ++i)
        if (&running[i]->thread == thread)
            return i + 1;
    return 0;
}

// The kept messages (only the main thread's, unless all), those of each
// watcher after the main thread's, each in its order; they are gone then.
Lines takeMessages(bool all)
{
    QMutexLocker locked(&messagesLock);
    Lines lines;
    for (int index = 0; index <= running.size(); ++index) {
        for (int i = 0; i < messages.size(); ++i) {
            if (indexOf(messages[i].thread) != index || (index && !all))
                continue;
            QByteArray line = messages.takeAt(i--).line;
            lines << (index ? line.insert(1, QByteArray::number(index)) : line);
        }
    }
    return lines;
}

int countOf(const QByteArray& prefix)
{
    QMutexLocker locked(&messagesLock);
    int count = 0;
    for (const Message& message : messages)
        count += message.line.mid(2).startsWith(prefix);
    return count;
}

bool sleepsInPoll(pid_t tid)
{
    return sandbox::sleepsLike(tid, [](int fd) { pollfd wait = {fd, POLLIN, 0}; poll(&wait, 1, -1); });
}

bool sleepsInRead(pid_t tid)
{
    return sandbox::sleepsLike(tid, [](int fd) { char byte; return void(read(fd, &byte, 1)); });
}

// /dev/ttyO1 made where the test may bind a pseudo-terminal's slave.
bool privateDevices()
{
    static const bool made = privateTree::privateDev();
    return made;
}

Lines outputLines(char stream, const QByteArray& text)
{
    Lines lines = text.isEmpty() ? Lines() : text.split('\n');
    if (text.endsWith('\n'))
        lines.removeLast();
    for (QByteArray& line : lines)
        line = stream + (" " + escaped(line));
    return lines;
}

QByteArray result(int value, std::string& errmsg)
{
    return QByteArray::number(value) + (value < 0 ? " " + QByteArray::fromStdString(errmsg) : QByteArray());
}

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
    std::unique_ptr<OutputControl> debugSwitch;
    std::unique_ptr<sandbox::OutputCapture> watcherErrors;
    int valueFd = -1;
    int ownFd = -1;
    int heldLine = -1;
    int errorsShown = 0;

    controller::Controller& printer() { return *controllers.back(); }

    // What one step gives as its result; its output and messages are the caller's.
    Lines step(const QByteArray& name, const Lines& args, const QByteArray& rest)
    {
        const int n = args.value(0).toInt();
        const QByteArray arg1 = unescaped(rest.mid(rest.indexOf(' ') + 1));
        std::string text = unescaped(rest).toStdString();
        if (name == "controller") {
            CHECK(privateDevices());
            controllers.emplace_back(new controller::Controller("/dev/ttyO1"));
            printer().start();
        } else if (name == "reply") {
            controller::Reply reply;
            reply.pauseMs = n;
            for (const QByteArray& chunk : rest.mid(args[0].size() + 1).split('|'))
                if (!chunk.isEmpty())
                    reply.chunks << unescaped(chunk);
            printer().queue(reply);
        } else if (name == "slots" || name == "zero-polls" || name == "echo") {
            name == "slots" ? printer().setFreeSlots(n) : name == "echo" ? printer().echoAfter(n) : printer().zeroPolls(n);
        } else if (name == "write" || name == "hang-up") {
            name == "write" ? printer().write(unescaped(rest)) : printer().hangUp();
        } else if (name == "port") {
            port.reset(); // the settings it restores are not the next port's
            port.reset(new shutSerial(text));
        } else if (name == "open" || name == "close" || name == "send") {
            return {result(name == "open" ? port->open() : name == "close" ? port->close() : port->send(text), port->errmsg())};
        } else if (name == "recv") {
            std::string line;
            const int length = port->recv(line);
            return {QByteArray::number(length) + " " + quoted(line)};
        } else if (name == "drain" || name == "sent") {
            return {quoted(name == "drain" ? port->cleanSerialBuff() : port->codeSent())};
        } else if (name == "attrs" || name == "vtime") {
            termios now;
            ownFd = ownFd < 0 ? open("/dev/ttyO1", O_RDWR | O_NOCTTY | O_CLOEXEC) : ownFd;
            tcgetattr(ownFd, &now);
            now.c_cc[VTIME] = name == "vtime" ? cc_t(n) : now.c_cc[VTIME];
            tcsetattr(ownFd, TCSANOW, &now);
            return {QString("iflag %1 oflag %2 lflag %3 cflag %4 speed %5/%6 cc %7")
                        .arg(now.c_iflag, 0, 16).arg(now.c_oflag, 0, 16).arg(now.c_lflag, 0, 16).arg(now.c_cflag, 0, 16)
                        .arg(cfgetispeed(&now)).arg(cfgetospeed(&now))
                        .arg(QString(QByteArray(reinterpret_cast<char*>(now.c_cc), NCCS).toHex())).toUtf8()};
        } else if (name == "interrupted") {
            // The step runs on a thread of its own, where SIGCHLD, whose
            // handler is installed without SA_RESTART as the daemon's is,
            // reaches it asleep in read(2): a signal between two reads
            // interrupts nothing, so it is sent again until the step ends.
            struct sigaction action = {};
            action.sa_handler = [](int) {};
            sigaction(SIGCHLD, &action, nullptr);
            std::atomic<pid_t> tid(0);
            std::atomic<bool> done(false);
            Lines given;
            std::thread worker([&] {
                tid = gettid();
                given = step(args[0], args.mid(1), rest.mid(args[0].size() + 1));
                done = true;
            });
            for (int tries = 0; tries < 5000 && !done; ++tries) {
                if (tid && sleepsInRead(tid) && pthread_kill(worker.native_handle(), SIGCHLD) == 0)
                    QTest::qWait(200);
                QThread::msleep(1);
            }
            worker.join();
            return given;
        } else if (name == "link") {
            link.reset();
            link.reset(new shutSerialObject);
        } else if (name == "code") {
            return {quoted(link->serialSendCode(QString::fromStdString(text)).toStdString())};
        } else if (name == "parse") {
            int count = 99;
            const int parsed = shutSerialObject::parseResult(text, count);
            return {QByteArray::number(parsed) + " " + QByteArray::number(count)};
        } else if (name == "poll-gaps") {
            const QStringList sent = printer().commands();
            Lines gaps;
            for (int i = 1; i < sent.size(); ++i)
                if (sent[i] == "M117" && sent[i - 1] == "M117")
                    gaps << (printer().arrivalsMs()[i] - printer().arrivalsMs()[i - 1] >= 80 ? "80 ms or more" : "sooner");
            return gaps;
        } else if (name == "two-links") {
            // Links in two threads, each sending its own numbered commands,
            // against a controller that answers each after a pause.
            CHECK(privateDevices());
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
            std::thread right(drive, 1);
            left.join();
            right.join();
            takeMessages(true);
            return {QString("%1 mismatches, %2 commands%3").arg(mismatches.load()).arg(echoing.commands().size())
                        .arg(echoing.overlapped() ? ", overlapped" : "").toUtf8()};
        } else if (name == "debug-switch") {
            if (!debugSwitch)
                debugSwitch.reset(new OutputControl);
            return {"'" + escaped(QString(debugSwitch->getValue("outSerial")).toUtf8()) + "' " + (debugSwitch->isSerialObjOutPut() ? "on" : "off")};
        } else if (name == "put" || name == "full" || name == "mkdir" || name == "rm") {
            QFile::remove(args[0]);
            QDir(args[0]).removeRecursively();
            QDir().mkpath(name == "mkdir" ? args[0] : QFileInfo(args[0]).path());
            name == "put" ? writeFile(args[0], args.size() > 1 ? arg1 : "") : void();
            CHECK(name != "full" || QFile::link("/dev/full", args[0]));
        } else if (name == "cat") {
            return {quoted(readFile(args[0]).toStdString())};
        } else if (name == "gpio-tree") {
            CHECK(sandbox::mountGpioTree());
        } else if (name == "exported") {
            for (const char* file : {"direction", "value", "edge"})
                step("put", {QString("/sys/class/gpio/gpio%1/%2").arg(n).arg(file).toUtf8()}, "");
        } else if (name.startsWith("gpio_") || name.startsWith("m.gpio_")) {
            const bool m = name.startsWith("m.");
            if (!watcher)
                watcher.reset(new shutMyGpio);
            shutMyGpio& w = *watcher;
            const QByteArray f = name.mid(m ? 2 : 0);
            const std::string a = arg1.toStdString();
            unsigned int level = 5;
            const int r = f == "gpio_export" ? (m ? w.gpio_export(n) : gpio_export(n))
                : f == "gpio_unexport" ? (m ? w.gpio_unexport(n) : gpio_unexport(n))
                : f == "gpio_set_direction" ? (m ? w.gpio_set_direction(n, a) : gpio_set_direction(n, a))
                : f == "gpio_set_value" ? (m ? w.gpio_set_value(n, arg1.toUInt()) : gpio_set_value(n, arg1.toUInt()))
                : f == "gpio_get_value" ? (m ? w.gpio_get_value(n, &level) : gpio_get_value(n, &level))
                : f == "gpio_set_edge" ? (m ? w.gpio_set_edge(n, a) : gpio_set_edge(n, a))
                : (m ? w.gpio_open(n) : gpio_open(n));
            if (f == "gpio_open" && r >= 0) {
                const bool readOnly = (fcntl(r, F_GETFL) & (O_ACCMODE | O_NONBLOCK)) == (O_RDONLY | O_NONBLOCK);
                char bytes[16];
                const ssize_t got = read(r, bytes, sizeof bytes);
                close(r);
                return {QByteArray(readOnly ? "read-only, non-blocking" : "other flags") + ", reads \"" + escaped(QByteArray(bytes, int(got))) + "\""};
            }
            return {QByteArray::number(r) + (f == "gpio_get_value" ? " " + QByteArray::number(level) : "")};
        } else if (name == "table") {
            umount2("/proc/mounts", MNT_DETACH);
            writeFile("/tmp/mounts", unescaped(rest));
            CHECK(sandbox::bindMountTable("/tmp/mounts"));
        } else if (name == "chmod") {
            CHECK(QFile::setPermissions(args[0], QFileDevice::Permissions(args[1].toInt(nullptr, 16))));
        } else if (name == "as-nobody") {
            // access() judges by the real user, for whom root's rights do not count.
            CHECK(setresuid(65534, 0, 0) == 0);
            const Lines given = step(args[0], args.mid(1), "");
            CHECK(setresuid(0, 0, 0) == 0);
            return given;
        } else if (name == "mounts") {
            std::vector<shutMyGpio::mount_point_t> list(3);
            Lines records = {QByteArray::number(shutMyGpio().get_mount_list(list))};
            for (const shutMyGpio::mount_point_t& mount : list)
                records << escaped((mount.device + "|" + mount.mount_dir + "|" + mount.fs_type).toUtf8());
            return records;
        } else if (name == "poweroff") {
            return {QByteArray::number(shutMyGpio().do_poweroff_process())};
        } else if (name == "watcher") {
            // A fresh watcher; each wake reads its level from the start of one file.
            watcher.reset(new shutMyGpio);
            connect(watcher.get(), &shutMyGpio::sig_shutDown, [] { qDebug("[sig_shutDown]"); });
            connect(watcher.get(), &shutMyGpio::sig_pollOn, [] { qDebug("[sig_pollOn]"); });
            writeFile("/tmp/value", "");
            close(valueFd);
            valueFd = open("/tmp/value", O_RDONLY);
        } else if (name == "wake") {
            writeFile("/tmp/value", unescaped(rest));
            return {QByteArray::number(watcher->handleWake(valueFd))};
        } else if (name == "wake-unreadable") {
            const int directory = open("/tmp", O_RDONLY);
            const int woke = watcher->handleWake(directory);
            close(directory);
            return {QByteArray::number(woke)};
        } else if (name == "mount") {
            CHECK(QDir().mkpath(args[1]) && mount(args[0].constData(), args[1].constData(), "tmpfs", 0, nullptr) == 0);
        } else if (name == "input") {
            // The level gpio-mockup gives its input line.
            writeFile("/sys/kernel/debug/gpio-mockup/gpiochip0/" + args[0], args[1]);
        } else if (name == "debug-row") {
            for (const QByteArray& row : readFile("/sys/kernel/debug/gpio").split('\n'))
                if (row.trimmed().startsWith("gpio-" + args[0] + " "))
                    return {row.simplified()};
        } else if (name == "hold") {
            // Another user of the line, through the chip's character device.
            const int chip = open("/dev/gpiochip0", O_RDONLY);
            gpio_v2_line_request request;
            memset(&request, 0, sizeof request);
            request.offsets[0] = n;
            request.num_lines = 1;
            request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
            strcpy(request.consumer, "another user");
            CHECK(ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request) == 0);
            close(chip);
            heldLine = request.fd;
        } else if (name == "release") {
            close(heldLine);
        } else if (name == "start") {
            Running* run = new Running;
            shutMyGpio* started = new shutMyGpio;
            started->moveToThread(&run->thread);
            connect(started, &shutMyGpio::sig_shutDown, started, [] { qDebug("[sig_shutDown]"); }, Qt::DirectConnection);
            connect(started, &shutMyGpio::sig_pollOn, started, [] { qDebug("[sig_pollOn]"); }, Qt::DirectConnection);
            connect(&run->thread, &QThread::started, started, [run] { run->handle = pthread_self(); run->tid = gettid(); }, Qt::DirectConnection);
            connect(&run->thread, &QThread::started, started, &shutMyGpio::run);
            running << run;
            run->thread.start();
            CHECK(waitFor([run] { return run->tid != 0; }));
        } else if (name == "await") {
            CHECK(waitFor([&] { return countOf(rest.mid(args[0].size() + 1)) >= n; }, 20000));
            return takeMessages(true);
        } else if (name == "quiet") {
            // Every watcher back in its wait, and nothing more for a second.
            for (Running* run : running)
                CHECK(waitFor([run] { return sleepsInPoll(run->tid); }));
            QTest::qWait(1000);
            return takeMessages(true);
        } else if (name == "interrupt") {
            // A signal whose handler is installed without SA_RESTART, sent
            // while the watcher waits; it is handled before the next step.
            struct sigaction action = {};
            action.sa_handler = [](int) { interrupted = 1; };
            sigaction(SIGUSR1, &action, nullptr);
            interrupted = 0;
            CHECK(waitFor([&] { return sleepsInPoll(running[n - 1]->tid); }));
            pthread_kill(running[n - 1]->handle, SIGUSR1);
            CHECK(waitFor([] { return interrupted != 0; }));
        } else if (name == "errors" || name == "retries") {
            // Retries are written to standard error: at most one line a
            // second per watcher, and under 1% of a processor each: no busy
            // loop.
            const int before = watcherErrors->text().size();
            QList<qint64> cpuBefore;
            for (const Running* run : running)
                cpuBefore << cpuNs(run);
            QTest::qWait(1000 * n);
            bool idle = true;
            for (int i = 0; i < running.size(); ++i)
                idle = idle && cpuNs(running[i]) - cpuBefore[i] < n * 10000000LL;
            const QByteArray text = watcherErrors->text();
            const bool fewLines = text.mid(before).count('\n') <= running.size() * (n + 1);
            const QByteArray verdict = fewLines && idle ? "one try a second at most, under 1% of a processor" : "busy";
            Lines lines = text.mid(errorsShown).split('\n');
            errorsShown = text.size();
            // The distinct lines, but for one that may or may not come.
            lines.removeAll(rest.mid(args[0].size() + 1));
            lines.removeAll(QByteArray());
            std::sort(lines.begin(), lines.end());
            lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
            return name == "retries" ? Lines({verdict}) + lines : lines;
        } else {
            QTest::qFail("no such step: " + name, __FILE__, __LINE__);
        }
        return {};
    }

private slots:
    void initTestCase()
    {
        qInstallMessageHandler(keepMessage);
        // The calls to wait in learnt now, not while a wait must be caught.
        sleepsInRead(0);
        sleepsInPoll(0);
    }

    void replay_data()
    {
        QTest::addColumn<QString>("path");
        for (const QFileInfo& file : QDir(":/golden").entryInfoList())
            QTest::newRow(qPrintable(file.baseName())) << file.filePath();
    }

    void replay()
    {
        QFETCH(QString, path);
        Lines expected;
        Lines actual;
        for (const QByteArray& line : readFile(path).split('\n')) {
            if (line.isEmpty() || line.startsWith('#'))
                continue;
            expected << line;
            if (!line.startsWith("> "))
                continue;
            actual << line;
            const QByteArray command = line.mid(2);
            const QByteArray name = command.left(command.indexOf(' ') < 0 ? command.size() : command.indexOf(' '));
            const QByteArray rest = command.mid(name.size() + 1);
            const Lines words = rest.split(' ');
            std::unique_ptr<sandbox::OutputCapture> out(new sandbox::OutputCapture(STDOUT_FILENO));
            if (name == "start" && !watcherErrors)
                watcherErrors.reset(new sandbox::OutputCapture(STDERR_FILENO));
            std::unique_ptr<sandbox::OutputCapture> err(watcherErrors ? nullptr : new sandbox::OutputCapture(STDERR_FILENO));
            for (const QByteArray& given : step(name, words, rest))
                actual << "= " + given;
            if (QTest::currentTestFailed())
                break;
            actual << outputLines('1', out->text()) << (err ? outputLines('2', err->text()) : Lines());
            actual << takeMessages(false);
        }
        port.reset();
        link.reset();
        watcher.reset();
        watcherErrors.reset();
        debugSwitch.reset();
        sandbox::unbindMountTable();
        close(ownFd);
        ownFd = -1;
        while (!controllers.empty()) {
            actual << "wire \"" + escaped(printer().wire()) + "\"";
            controllers.pop_back();
        }
        for (int i = 0; i < qMax(actual.size(), expected.size()); ++i) {
            if (actual.value(i) != expected.value(i) || QTest::currentTestFailed()) {
                fprintf(stderr, "%s as replayed:\n%s\n", qPrintable(path), actual.join('\n').constData());
                QFAIL(qPrintable(QString("line %1 of the steps and results: \"%2\", not \"%3\"")
                                     .arg(i + 1).arg(QString(actual.value(i))).arg(QString(expected.value(i)))));
            }
        }
    }
};

// QtCore alone: the components need nothing else, also in the test machine.
int main(int argc, char** argv)
{
#ifndef IN_TEST_MACHINE // where everything is the test's own
    if (!sandbox::enter())
        return 1;
#endif
    QCoreApplication app(argc, argv);
    tst_transcripts test;
    return QTest::qExec(&test, argc, argv);
}
#include "tst_transcripts.moc"
