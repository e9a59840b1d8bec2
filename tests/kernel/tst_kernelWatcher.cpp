// The power-signal watcher on Debian's own kernel, with gpio-mockup's lines
// 55 and 100: runs inside the test machine (tools/vm/test), as root, where
// everything it touches is the machine's own.
//
// A watcher's run never returns, so one watcher serves the cases in their
// order, each starting from the state the one before left: the line high
// and the watcher in its wait. A case that needs a watcher's start starts
// a second one.
#include "kernelGpio.h"
#include "sysfsGpio.h"

#include <QDir>
#include <QtTest>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <linux/gpio.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace kernelGpio;

namespace {

const unsigned int powerLine = 55;
const unsigned int outputLine = 100;

// What the watcher writes for the level it read.
QString valueMessage(const char* level)
{
    return QString("shutMyGpio run val =  \"%1\"").arg(level);
}
const QString lossMessage = "shutMyGpio run  receive poweroff signal";
const QString returnMessage = "shutMyGpio run  receive power on signal\n";
// The partitions the preparation lists, in the mount table's order.
const QStringList partitionMessages = {"umount  \"/dev/mmcblk0p3\"  from  \"/tmp/mnt/dev/mmcblk0p3\"",
                                       "umount  \"/dev/sda1\"  from  \"/media/usb\""};

// How long a wake that should not come is waited for. The machine is
// emulated: a wake that comes at all comes in milliseconds.
const int quietMs = 1000;

QByteArray lineFile(unsigned int line, const char* file)
{
    return readFile(QString("/sys/class/gpio/gpio%1/%2").arg(line).arg(file));
}

// The line's row in the kernel's own table, without its leading blanks.
QByteArray debugRow(unsigned int line)
{
    const QByteArray name = "gpio-" + QByteArray::number(line) + " ";
    for (const QByteArray& row : readFile("/sys/kernel/debug/gpio").split('\n'))
        if (row.trimmed().startsWith(name))
            return row.simplified();
    return QByteArray();
}

// A tmpfs takes any name as its device: mounted under the names of the SD
// card's log partition and of a USB stick, the kernel's own mount table
// shows what the preparation looks for.
// From inside a signal's emission, while the watcher is still busy: the
// power (back first, when it is low) falls and comes back, and the falling
// edge is marked before the watcher reads the line again.
void dipWhileBusy(EdgeProbe& probe, bool lowNow)
{
    probe.arm();
    if (lowNow)
        setInput(powerLine, true);
    setInput(powerLine, false);
    setInput(powerLine, true);
    probe.edgeWithin(5000);
}

// Another user of the line, through the chip's character device: while it
// holds the line, the line cannot be exported. The request's descriptor,
// which frees the line when closed, or -1.
int holdLine(unsigned int line)
{
    const int chip = open("/dev/gpiochip0", O_RDONLY);
    if (chip < 0)
        return -1;
    gpio_v2_line_request request;
    memset(&request, 0, sizeof request);
    request.offsets[0] = line;
    request.num_lines = 1;
    request.config.flags = GPIO_V2_LINE_FLAG_INPUT;
    strcpy(request.consumer, "another user");
    const int held = ioctl(chip, GPIO_V2_GET_LINE_IOCTL, &request) < 0 ? -1 : request.fd;
    close(chip);
    return held;
}

// The time the thread has run, in nanoseconds.
qint64 cpuNs(pid_t tid)
{
    return readFile(QString("/proc/self/task/%1/schedstat").arg(tid)).split(' ').value(0).toLongLong();
}

QString notWatched(const char* reason)
{
    return QString("shutMyGpio run  power signal not watched, retry every second:  ") + reason;
}

bool mountAs(const char* device, const char* dir)
{
    return QDir().mkpath(dir) && mount(device, dir, "tmpfs", 0, nullptr) == 0;
}

} // namespace

class tst_kernelWatcher : public QObject
{
    Q_OBJECT

private:
    // Never destroyed: the thread's run never returns.
    RunningWatcher* running = new RunningWatcher;

    // The watcher is back in its wait, and stays there: no wake comes.
    void staysWaiting()
    {
        QTRY_VERIFY(waitsInPoll(running->tid()));
        const int shutDowns = running->shutDowns();
        const int pollOns = running->pollOns();
        QTest::qWait(quietMs);
        QVERIFY(waitsInPoll(running->tid()));
        QCOMPARE(running->shutDowns(), shutDowns);
        QCOMPARE(running->pollOns(), pollOns);
        QCOMPARE(takeMessages(), QStringList());
    }

    static QStringList lossMessages()
    {
        return QStringList({valueMessage("0"), lossMessage}) + partitionMessages;
    }

private slots:
    void initTestCase()
    {
        QVERIFY2(QFile::exists("/sys/kernel/debug/gpio-mockup/gpiochip0"), "not in the test machine");
        QVERIFY(mountAs("/dev/mmcblk0p3", "/tmp/mnt/dev/mmcblk0p3"));
        QVERIFY(mountAs("/dev/sda1", "/media/usb"));
        keepMessages();
        // The power is there when the watcher starts.
        QVERIFY(setInput(powerLine, true));
        running->start();
        // The first wait returns at once, before any edge: the value file
        // has not been read yet.
        QTRY_VERIFY(timeOf(valueMessage("1")) >= 0);
        QTRY_VERIFY(waitsInPoll(running->tid()));
    }

    // A hook left by a failed case must not act in the next.
    void cleanup()
    {
        running->atShutDown(nullptr);
        running->atPollOn(nullptr);
    }

    void setUpOfBothLines()
    {
        QCOMPARE(lineFile(powerLine, "direction"), QByteArray("in\n"));
        QCOMPARE(lineFile(powerLine, "edge"), QByteArray("falling\n"));
        QCOMPARE(lineFile(powerLine, "value"), QByteArray("1\n"));
        QCOMPARE(lineFile(outputLine, "direction"), QByteArray("out\n"));
        QCOMPARE(lineFile(outputLine, "value"), QByteArray("1\n"));
        // The chip's side: the output really driven high, the input's
        // interrupt requested.
        QCOMPARE(debugRow(outputLine), QByteArray("gpio-100 ( |sysfs ) out hi"));
        QCOMPARE(debugRow(powerLine), QByteArray("gpio-55 ( |sysfs ) in hi IRQ"));
    }

    // The first wake of all, with the power there, is a rise with no loss
    // before it.
    void riseWithNoLossBeforeItGivesNothing()
    {
        QCOMPARE(takeMessages(), QStringList({"=======20160408======MyGpio=====run",
                                              "shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio100/value\"",
                                              valueMessage("1")}));
        QCOMPARE(running->shutDowns(), 0);
        QCOMPARE(running->pollOns(), 0);
        staysWaiting();
    }

    void fallingEdgeGivesOnePreparationAndOneShutDown()
    {
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(running->shutDowns(), 1);
        QCOMPARE(takeMessages(), lossMessages());
        staysWaiting();
        QCOMPARE(running->shutDowns(), 1);
        QCOMPARE(running->pollOns(), 0);
    }

    // With edge "falling" the return of the power wakes nothing, so it
    // gives no sig_pollOn by itself: the line reads 1 and nobody looks.
    void risingEdgeAloneWakesNothing()
    {
        EdgeProbe probe(powerLine);
        QVERIFY(probe.arm());
        QVERIFY(setInput(powerLine, true));
        QVERIFY(!probe.edgeWithin(quietMs));
        QCOMPARE(lineFile(powerLine, "value"), QByteArray("1\n"));
        staysWaiting();
        QCOMPARE(running->shutDowns(), 1);
        QCOMPARE(running->pollOns(), 0);
    }

    // The return is seen at the next wake that finds the line high: the
    // power falls and is back before the watcher reads. The hook does this
    // while the watcher is still busy with the loss, so the order is sure.
    void riseAfterALossGivesOnePollOn()
    {
        // Left high by the case before; taken low and back without a
        // watcher's reaction is impossible, so a new loss starts this one.
        EdgeProbe probe(powerLine);
        running->atShutDown([&probe] { dipWhileBusy(probe, true); });
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(running->pollOns(), 1);
        QCOMPARE(running->shutDowns(), 2);
        QCOMPARE(takeMessages(), lossMessages() + QStringList({valueMessage("1"), returnMessage}));
        staysWaiting();
        QCOMPARE(running->pollOns(), 1);
    }

    // The same dip once more, now right after the return was reported:
    // the next wake reads 1 again, with no loss before it.
    void riseAfterAReturnGivesNothing()
    {
        EdgeProbe probe(powerLine);
        // At the loss: the power comes back, dips and comes back again.
        running->atShutDown([&probe] { dipWhileBusy(probe, true); });
        // At the return: the power dips once more.
        running->atPollOn([&probe] { dipWhileBusy(probe, false); });
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(countOf(valueMessage("1")), 2);
        QTRY_VERIFY(waitsInPoll(running->tid()));
        QCOMPARE(takeMessages(), lossMessages() + QStringList({valueMessage("1"), returnMessage, valueMessage("1")}));
        QCOMPARE(running->shutDowns(), 3);
        QCOMPARE(running->pollOns(), 2);
        staysWaiting();
    }

    void twoFallingEdgesGiveTwo()
    {
        const int before = running->shutDowns();
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(running->shutDowns(), before + 1);
        QTRY_VERIFY(waitsInPoll(running->tid()));
        QVERIFY(setInput(powerLine, true));
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(running->shutDowns(), before + 2);
        QCOMPARE(takeMessages(), lossMessages() + lossMessages());
        staysWaiting();
        QCOMPARE(running->shutDowns(), before + 2);
    }

    // The line is low from the case before. A watcher that starts now
    // takes the power-off path at its first wait, which returns at once;
    // the first watcher sees no edge.
    void lineAlreadyLowWhenAWatcherStarts()
    {
        QCOMPARE(lineFile(powerLine, "value"), QByteArray("0\n"));
        const int firstShutDowns = running->shutDowns();
        RunningWatcher* second = new RunningWatcher; // never destroyed, as above
        second->start();
        QTRY_COMPARE(second->shutDowns(), 1);
        QCOMPARE(takeMessages(), QStringList({"=======20160408======MyGpio=====run",
                                              "shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio100/value\""})
                                     + lossMessages());
        QTRY_VERIFY(waitsInPoll(second->tid()));
        QTest::qWait(quietMs);
        QCOMPARE(second->shutDowns(), 1);
        QCOMPARE(second->pollOns(), 0);
        QCOMPARE(running->shutDowns(), firstShutDowns);
        QCOMPARE(takeMessages(), QStringList());
    }

    // The line taken away while it is watched: unexported by another
    // process, then held by another user of the chip, while a third watcher
    // starts. Each reports once and retries every second without spinning;
    // once the line is free, all set it up again whole and see the next loss.
    void aLineTakenAwayIsWatchedAgainOnceFree()
    {
        QVERIFY(setInput(powerLine, true));
        takeMessages();
        const int shutDowns = running->shutDowns();
        const QString errorsPath = "/tmp/stderr";
        const int savedStderr = dup(STDERR_FILENO);
        const int errors = open(errorsPath.toUtf8().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        QVERIFY(errors >= 0 && dup2(errors, STDERR_FILENO) == STDERR_FILENO);
        close(errors);

        QFile unexport("/sys/class/gpio/unexport");
        QVERIFY(unexport.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && unexport.write("55") == 2);
        const int held = holdLine(powerLine);
        QVERIFY(held >= 0);
        RunningWatcher* late = new RunningWatcher; // never destroyed, as above
        late->start();
        QTRY_COMPARE(countOf(notWatched("No such device")), 2);
        QTRY_COMPARE(countOf(notWatched("No such file or directory")), 1);

        // While the line is gone: under 1% of a processor per watcher, and
        // one line of standard error per watcher and retry at most.
        const int seconds = 3;
        const QList<pid_t> watchers = {running->tid(), late->tid()};
        QList<qint64> cpuBefore;
        for (pid_t tid : watchers)
            cpuBefore << cpuNs(tid);
        const qint64 errorsBefore = QFileInfo(errorsPath).size();
        QTest::qWait(seconds * 1000);
        const QByteArray lines = readFile(errorsPath).mid(errorsBefore);
        for (int i = 0; i < watchers.size(); ++i) {
            const qint64 used = cpuNs(watchers[i]) - cpuBefore[i];
            printf("line gone: watcher %d used %.3f%% of a processor\n", i, used / (seconds * 1e7));
            QVERIFY(used < seconds * 10000000LL);
        }
        printf("line gone: %lld bytes of standard error a second from %d watchers\n",
               qint64(lines.size()) / seconds, 3);
        QVERIFY(lines.count('\n') <= 3 * (seconds + 1));
        QCOMPARE(lines.count('\n'), lines.count("gpio/fd_open: No such file or directory\n"));

        close(held);
        QTRY_COMPARE(countOf("shutMyGpio run  power signal watched"), 3);
        QCOMPARE(lineFile(powerLine, "direction") + lineFile(powerLine, "edge"), QByteArray("in\nfalling\n"));
        QCOMPARE(debugRow(powerLine), QByteArray("gpio-55 ( |sysfs ) in hi IRQ"));
        QVERIFY(setInput(powerLine, false));
        QTRY_COMPARE(late->shutDowns(), 1);
        QTRY_COMPARE(running->shutDowns(), shutDowns + 1);
        QTRY_COMPARE(countOf(lossMessage), 3);
        dup2(savedStderr, STDERR_FILENO);
        close(savedStderr);
        // Watchers asleep in poll learn of the loss at their next look at
        // the file; one that was not finds a read that fails, once.
        const QByteArray allErrors = readFile(errorsPath);
        const int readFailures = allErrors.count("check upper dor error: No such device\n");
        QVERIFY(readFailures <= 2);
        QCOMPARE(allErrors.count('\n'), readFailures + allErrors.count("gpio/fd_open: No such file or directory\n"));
        QVERIFY(setInput(powerLine, true));
    }

    // The kernel's refusals come back as the errno it gives, from the free
    // functions and, with their messages, from the watcher's members.
    void kernelRefusalsComeBackAsItsErrno()
    {
        takeMessages();
        shutMyGpio members;
        // Line 200 is beyond the chip's 128 lines.
        QCOMPARE(gpio_export(200), -EINVAL);
        QCOMPARE(members.gpio_export(200), -EINVAL);
        QVERIFY(!QFile::exists("/sys/class/gpio/gpio200"));
        // An edge needs an input's interrupt: line 100 is an output.
        QCOMPARE(gpio_set_edge(outputLine, "falling"), -EIO);
        QCOMPARE(members.gpio_set_edge(outputLine, "falling"), -EIO);
        QCOMPARE(lineFile(outputLine, "edge"), QByteArray("none\n"));
        QCOMPARE(takeMessages(),
                 QStringList({"shutMyGpio gpio_export write /sys/class/gpio/exprot   value: \"200\"   error",
                              "shutMyGpio gpio_set_edge write /sys/class/gpio /edge \"100\"   error"}));
        // An exported line is left as it is, and its set-up stays.
        QCOMPARE(gpio_export(powerLine), 0);
        QCOMPARE(lineFile(powerLine, "edge"), QByteArray("falling\n"));
    }
};

QTEST_GUILESS_MAIN(tst_kernelWatcher)
#include "tst_kernelWatcher.moc"
