// The power-signal watcher against a GPIO tree and a mount table of the
// test's own, inside the sandbox's private mount namespace.
#include "sandbox.h"
#include "shutMyGpio.h"
#include "sysfsGpio.h"

#include <QThread>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <functional>
#include <memory>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

using sandbox::readFile;
using sandbox::writeFile;

namespace {

QString linePath(unsigned int gpio, const char* file)
{
    return QString("/sys/class/gpio/gpio%1/%2").arg(gpio).arg(file);
}

// A line as the kernel shows it once exported: its directory and files.
void exportLine(unsigned int gpio)
{
    QDir().mkpath(QString("/sys/class/gpio/gpio%1").arg(gpio));
    for (const char* file : {"direction", "value", "edge"})
        writeFile(linePath(gpio, file), "");
}

// Opens fine and refuses every write with ENOSPC.
void makeFull(const QString& path)
{
    QFile::remove(path);
    QFile::link("/dev/full", path);
}

// Refuses a write-only open, and every read, with EISDIR.
void makeDirectory(const QString& path)
{
    QFile::remove(path);
    QDir().mkdir(path);
}

// One family of GPIO operations: the free functions or a watcher's members.
struct Family {
    std::function<int(unsigned int)> exportLine;
    std::function<int(unsigned int)> unexportLine;
    std::function<int(unsigned int, const std::string&)> setDirection;
    std::function<int(unsigned int, unsigned int)> setValue;
    std::function<int(unsigned int, unsigned int*)> getValue;
    std::function<int(unsigned int, const std::string&)> setEdge;
    std::function<int(unsigned int)> open;
};

Family freeFamily()
{
    return {gpio_export, gpio_unexport, gpio_set_direction, gpio_set_value,
            gpio_get_value, gpio_set_edge, gpio_open};
}

Family memberFamily(shutMyGpio* w)
{
    using namespace std::placeholders;
    return {std::bind(&shutMyGpio::gpio_export, w, _1), std::bind(&shutMyGpio::gpio_unexport, w, _1),
            std::bind(&shutMyGpio::gpio_set_direction, w, _1, _2), std::bind(&shutMyGpio::gpio_set_value, w, _1, _2),
            std::bind(&shutMyGpio::gpio_get_value, w, _1, _2), std::bind(&shutMyGpio::gpio_set_edge, w, _1, _2),
            std::bind(&shutMyGpio::gpio_open, w, _1)};
}

const char mountTable[] =
    "/dev/root / ext4 rw 0 0\n"
    "/dev/sda1 /media/usb vfat rw 0 0\n"
    "/dev/sda /media/disk vfat rw 0 0\n"
    "/dev/sdA1 /media/upper vfat rw 0 0\n"
    "/dev/sda1p /media/p vfat rw 0 0\n"
    "/dev/mmcblk0p1 /media/my\\040card vfat rw 0 0\n"
    "/dev/mmcblk0p3 /tmp/mnt/dev/mmcblk0p3 ext4 rw 0 0\n"
    "/dev/mmcblk0p3x /x ext4 rw 0 0\n"
    "x/dev/mmcblk0p3 /y ext4 rw 0 0\n"
    "\n"
    "/dev/sdc1 /media/c\n"
    "/dev/sdd1\n"
    "\t/dev/sdaa3 \t /media/aa   ext4\n"
    "/dev/sdb12 /media/b vfat rw 0 0\n"
    "/dev/sda1 /media/again vfat rw 0 0";

const char tablePath[] = "/tmp/mounts";

volatile sig_atomic_t interrupted = 0;

// Whether the thread sleeps in the wait for an edge.
bool waitsInPoll(pid_t tid)
{
    return sandbox::sleepsLike(tid, [](int fd) {
        pollfd wait = {fd, POLLIN, 0};
        poll(&wait, 1, -1);
    });
}

} // namespace

class tst_shutMyGpio : public QObject
{
    Q_OBJECT

private:
    // Made once the test run has begun: Qt Test installs its own handler then.
    std::unique_ptr<sandbox::MessageLog> log;
    shutMyGpio watcher;
    Family family;
    bool member = false;
    pthread_t watcherThread = pthread_t();
    pid_t watcherTid = 0;
    int shutDowns = 0;
    int pollOns = 0;

    // The messages the member family raises; the free family raises none.
    void compareMessages(const QStringList& expected)
    {
        QCOMPARE(log->take(), member ? expected : QStringList());
    }

    void familyRows()
    {
        QTest::addColumn<bool>("member");
        QTest::newRow("free functions") << false;
        QTest::newRow("members") << true;
    }

    void takeFamily()
    {
        QFETCH(bool, member);
        this->member = member;
        family = member ? memberFamily(&watcher) : freeFamily();
    }

    QStringList handleLevel(shutMyGpio& wakened, int fd, const QByteArray& text)
    {
        writeFile("/tmp/value", text);
        wakened.handleWake(fd);
        return log->take();
    }

private slots:
    void initTestCase()
    {
        QVERIFY(sandbox::makeSignalLine());
        log.reset(new sandbox::MessageLog);
    }

    void init()
    {
        QVERIFY(sandbox::mountGpioTree());
        log->take();
    }

    void exportAndUnexport_data() { familyRows(); }
    void exportAndUnexport()
    {
        takeFamily();
        writeFile("/sys/class/gpio/export", "");
        writeFile("/sys/class/gpio/unexport", "");
        QCOMPARE(family.exportLine(55), 0);
        QCOMPARE(readFile("/sys/class/gpio/export"), QByteArray("55"));
        QCOMPARE(family.unexportLine(55), 0);
        QCOMPARE(readFile("/sys/class/gpio/unexport"), QByteArray(""));

        exportLine(7);
        QCOMPARE(family.unexportLine(7), 0);
        QCOMPARE(readFile("/sys/class/gpio/unexport"), QByteArray("7"));
        writeFile("/sys/class/gpio/export", "");
        QCOMPARE(family.exportLine(7), 0);
        QCOMPARE(readFile("/sys/class/gpio/export"), QByteArray(""));
        compareMessages({});

        // The kernel refusing the number, and control files that do not open.
        makeFull("/sys/class/gpio/export");
        makeFull("/sys/class/gpio/unexport");
        QCOMPARE(family.exportLine(55), -ENOSPC);
        QCOMPARE(family.unexportLine(7), 0);
        compareMessages({"shutMyGpio gpio_export write /sys/class/gpio/exprot   value: \"55\"   error",
                         "shutMyGpio gpio_unexport write unexprot  /sys/class/gpio /exprot \"7\"   error"});
        QFile::remove("/sys/class/gpio/export");
        QFile::remove("/sys/class/gpio/unexport");
        sandbox::OutputCapture stderrText(STDERR_FILENO);
        QCOMPARE(family.exportLine(55), -ENOENT);
        QCOMPARE(family.unexportLine(7), -ENOENT);
        QCOMPARE(stderrText.text(), QByteArray("gpio/export: No such file or directory\n"
                                               "gpio/export: No such file or directory\n"));
        compareMessages({"shutMyGpio gpio_unexport /sys/class/gpio /unexprot \"7\"   error"});
    }

    void lineFilesGetExactlyTheBytes_data() { familyRows(); }
    void lineFilesGetExactlyTheBytes()
    {
        takeFamily();
        exportLine(55);
        QCOMPARE(family.setDirection(55, "out"), 0);
        QCOMPARE(readFile(linePath(55, "direction")), QByteArray("out"));
        QCOMPARE(family.setEdge(55, "rising"), 0);
        QCOMPARE(readFile(linePath(55, "edge")), QByteArray("rising"));
        QCOMPARE(family.setValue(55, 1), 0);
        QCOMPARE(readFile(linePath(55, "value")), QByteArray("1"));
        compareMessages({"shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio55/value\""});

        exportLine(56);
        QCOMPARE(family.setDirection(56, "in"), 0);
        QCOMPARE(family.setEdge(56, "falling"), 0);
        QCOMPARE(family.setValue(56, 0), 0);
        QCOMPARE(readFile(linePath(56, "direction")) + readFile(linePath(56, "edge")) + readFile(linePath(56, "value")),
                 QByteArray("infalling0"));
        log->take();

        // Refused before anything is looked at, even on a line not exported.
        for (unsigned int gpio : {55u, 57u}) {
            for (const char* dir : {"IN", "high", "low", "", "in\n"})
                QCOMPARE(family.setDirection(gpio, dir), -EINVAL);
            for (const char* edge : {"both", "none", "Falling", "falling\n"})
                QCOMPARE(family.setEdge(gpio, edge), -EINVAL);
            QCOMPARE(family.setValue(gpio, 2), -EINVAL);
        }
        QCOMPARE(readFile(linePath(55, "direction")) + readFile(linePath(55, "edge")) + readFile(linePath(55, "value")),
                 QByteArray("outrising1"));
        compareMessages({});
    }

    void lineFileFailures_data() { familyRows(); }
    void lineFileFailures()
    {
        takeFamily();
        unsigned int level = 5;
        QCOMPARE(family.setDirection(55, "in"), -EEXIST);
        QCOMPARE(family.setValue(55, 1), -EEXIST);
        QCOMPARE(family.getValue(55, &level), -EEXIST);
        QCOMPARE(family.setEdge(55, "falling"), -EEXIST);
        compareMessages({"shutMyGpio gpio_set_direction /sys/class/gpio /direction \"55\"   error",
                         "shutMyGpio gpio_set_value /sys/class/gpio /value \"55\"   error",
                         "shutMyGpio gpio_get_value /sys/class/gpio /value \"55\"   error",
                         "shutMyGpio gpio_set_edge /sys/class/gpio /edge \"55\"   error"});

        exportLine(55);
        for (const char* file : {"direction", "value", "edge"})
            makeFull(linePath(55, file));
        QCOMPARE(family.setDirection(55, "in"), -ENOSPC);
        QCOMPARE(family.setValue(55, 0), -ENOSPC);
        QCOMPARE(family.setEdge(55, "falling"), -ENOSPC);
        compareMessages({"shutMyGpio gpio_set_direction write /sys/class/gpio /direction \"55\"   error",
                         "shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio55/value\"",
                         "shutMyGpio gpio_set_value write /sys/class/gpio /value \"55\"   error",
                         "shutMyGpio gpio_set_edge write /sys/class/gpio /edge \"55\"   error"});

        for (const char* file : {"direction", "value", "edge"})
            makeDirectory(linePath(55, file));
        QCOMPARE(family.setDirection(55, "in"), -EISDIR);
        QCOMPARE(family.setValue(55, 1), -EISDIR);
        QCOMPARE(family.getValue(55, &level), -EISDIR);
        QCOMPARE(family.setEdge(55, "falling"), -EISDIR);
        compareMessages({"shutMyGpio gpio_set_direction /sys/class/gpio /direciton \"55\"   error",
                         "shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio55/value\""});
        QCOMPARE(level, 5u);
    }

    void getValueDecodesTheFirstByte_data() { familyRows(); }
    void getValueDecodesTheFirstByte()
    {
        takeFamily();
        exportLine(55);
        const QList<QPair<QByteArray, unsigned int>> levels = {{"0\n", 0}, {"1\n", 1}, {"01", 0}, {"x", 1}, {"\n", 1}};
        for (const auto& level : levels) {
            writeFile(linePath(55, "value"), level.first);
            unsigned int got = 5;
            QCOMPARE(family.getValue(55, &got), 0);
            QCOMPARE(got, level.second);
        }
        writeFile(linePath(55, "value"), "");
        unsigned int untouched = 5;
        QCOMPARE(family.getValue(55, &untouched), -ENODATA);
        QCOMPARE(untouched, 5u);
        compareMessages({});
    }

    void openGivesTheValueFileForPoll_data() { familyRows(); }
    void openGivesTheValueFileForPoll()
    {
        takeFamily();
        exportLine(55);
        writeFile(linePath(55, "value"), "1\n");
        const int fd = family.open(55);
        QVERIFY(fd >= 0);
        QCOMPARE(fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDONLY | O_NONBLOCK);
        char text[4] = {};
        QCOMPARE(read(fd, text, sizeof text), ssize_t(2));
        QCOMPARE(QByteArray(text), QByteArray("1\n"));
        close(fd);

        sandbox::OutputCapture stderrText(STDERR_FILENO);
        QCOMPARE(family.open(56), -ENOENT);
        QCOMPARE(stderrText.text(), QByteArray("gpio/fd_open: No such file or directory\n"));
        compareMessages({"shutMyGpio gpio_open /sys/class/gpio /open \"56\"   error"});
    }

    void mountTableRecords()
    {
        writeFile(tablePath, mountTable);
        QVERIFY(sandbox::bindMountTable(tablePath));
        std::vector<shutMyGpio::mount_point_t> list(3);
        QCOMPARE(watcher.get_mount_list(list), 0);
        sandbox::unbindMountTable();
        QStringList records;
        for (const shutMyGpio::mount_point_t& mount : list)
            records << mount.device + "|" + mount.mount_dir + "|" + mount.fs_type;
        QCOMPARE(records, QStringList({"/dev/root|/|ext4", "/dev/sda1|/media/usb|vfat", "/dev/sda|/media/disk|vfat",
                                       "/dev/sdA1|/media/upper|vfat", "/dev/sda1p|/media/p|vfat",
                                       "/dev/mmcblk0p1|/media/my\\040card|vfat",
                                       "/dev/mmcblk0p3|/tmp/mnt/dev/mmcblk0p3|ext4", "/dev/mmcblk0p3x|/x|ext4",
                                       "x/dev/mmcblk0p3|/y|ext4", "/dev/sdaa3|/media/aa|ext4",
                                       "/dev/sdb12|/media/b|vfat", "/dev/sda1|/media/again|vfat"}));
    }

    void poweroffLogsTheSelectedPartitions_data()
    {
        QTest::addColumn<QByteArray>("table");
        QTest::addColumn<QStringList>("logged");
        QTest::newRow("in table order") << QByteArray(mountTable)
            << QStringList({"umount  \"/dev/sda1\"  from  \"/media/usb\"",
                            "umount  \"/dev/mmcblk0p3\"  from  \"/tmp/mnt/dev/mmcblk0p3\"",
                            "umount  \"/dev/sdaa3\"  from  \"/media/aa\"", "umount  \"/dev/sdb12\"  from  \"/media/b\"",
                            "umount  \"/dev/sda1\"  from  \"/media/again\""});
        QTest::newRow("none") << QByteArray("/dev/root / ext4 rw 0 0\n/dev/sda /media/disk vfat rw 0 0\n") << QStringList();
        // The directory is logged as the table writes it, on every Qt 5.
        QTest::newRow("blank") << QByteArray("/dev/sda1 /media/my\\040stick vfat rw 0 0\n")
                               << QStringList({"umount  \"/dev/sda1\"  from  \"/media/my\\040stick\""});
        QTest::newRow("double quote") << QByteArray("/dev/sda1 /media/say\"hi\" vfat rw 0 0\n")
                                      << QStringList({"umount  \"/dev/sda1\"  from  \"/media/say\"hi\"\""});
    }
    void poweroffLogsTheSelectedPartitions()
    {
        QFETCH(QByteArray, table);
        QFETCH(QStringList, logged);
        writeFile(tablePath, table);
        QVERIFY(sandbox::bindMountTable(tablePath));
        QCOMPARE(watcher.do_poweroff_process(), 0);
        sandbox::unbindMountTable();
        QCOMPARE(log->take(), logged);
    }

    void unreadableMountTable()
    {
        writeFile(tablePath, mountTable);
        QVERIFY(QFile::setPermissions(tablePath, QFileDevice::Permissions()));
        QVERIFY(sandbox::bindMountTable(tablePath));
        // access() judges by the real user, for whom root's rights do not count.
        QCOMPARE(setresuid(65534, 0, 0), 0);
        std::vector<shutMyGpio::mount_point_t> list(3);
        const int listed = watcher.get_mount_list(list);
        const int prepared = watcher.do_poweroff_process();
        QCOMPARE(setresuid(0, 0, 0), 0);
        sandbox::unbindMountTable();
        QCOMPARE(listed, -EINVAL);
        QVERIFY(list.empty());
        QCOMPARE(prepared, 0);
        QCOMPARE(log->take(), QStringList());
    }

    void wakeDecodesTheLevel_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("level");
        QTest::newRow("low") << QByteArray("0\n") << "0";
        QTest::newRow("high") << QByteArray("1\n") << "1";
        QTest::newRow("blank before") << QByteArray(" \t1\n") << "1";
        QTest::newRow("two") << QByteArray("2") << "2";
        QTest::newRow("negative") << QByteArray("-1") << "-1";
        QTest::newRow("no digits") << QByteArray("high\n") << "0";
        QTest::newRow("empty read") << QByteArray() << "0";
        QTest::newRow("beyond 16 bytes") << QByteArray("00000000000000001\n") << "0";
    }
    void wakeDecodesTheLevel()
    {
        QFETCH(QByteArray, text);
        QFETCH(QString, level);
        shutMyGpio fresh;
        QSignalSpy shutDowns(&fresh, &shutMyGpio::sig_shutDown);
        QSignalSpy pollOns(&fresh, &shutMyGpio::sig_pollOn);
        writeFile("/tmp/value", text);
        const int fd = open("/tmp/value", O_RDONLY);
        fresh.handleWake(fd);
        close(fd);
        const QStringList logged = log->take();
        QCOMPARE(logged.value(0), "shutMyGpio run val =  \"" + level + "\"");
        QCOMPARE(shutDowns.count(), level == "0" ? 1 : 0);
        QCOMPARE(logged.contains("shutMyGpio run  receive poweroff signal"), level == "0");
        QCOMPARE(pollOns.count(), 0);
    }

    void wakeMovesBetweenTheTwoStates()
    {
        writeFile(tablePath, "/dev/sda1 /media/usb vfat rw 0 0\n");
        QVERIFY(sandbox::bindMountTable(tablePath));
        shutMyGpio fresh;
        QSignalSpy pollOns(&fresh, &shutMyGpio::sig_pollOn);
        QStringList logAtShutDown;
        connect(&fresh, &shutMyGpio::sig_shutDown, [&] { logAtShutDown << log->take() << "sig_shutDown"; });
        writeFile("/tmp/value", "");
        const int fd = open("/tmp/value", O_RDONLY);

        // Each read starts at the beginning of the file, as on sysfs.
        const QString val = "shutMyGpio run val =  ";
        QCOMPARE(handleLevel(fresh, fd, "1\n"), QStringList({val + "\"1\""}));
        QVERIFY(logAtShutDown.isEmpty());
        for (int loss = 0; loss < 2; ++loss) {
            QCOMPARE(handleLevel(fresh, fd, "0\n"), QStringList());
            QCOMPARE(pollOns.count(), 0);
        }
        const QStringList loss = {val + "\"0\"", "shutMyGpio run  receive poweroff signal",
                                  "umount  \"/dev/sda1\"  from  \"/media/usb\"", "sig_shutDown"};
        QCOMPARE(logAtShutDown, loss + loss);
        QCOMPARE(handleLevel(fresh, fd, "1\n"), QStringList({val + "\"1\"", "shutMyGpio run  receive power on signal\n"}));
        QCOMPARE(pollOns.count(), 1);
        QCOMPARE(handleLevel(fresh, fd, "1\n"), QStringList({val + "\"1\""}));
        QCOMPARE(pollOns.count(), 1);
        QCOMPARE(logAtShutDown.count("sig_shutDown"), 2);
        close(fd);
        sandbox::unbindMountTable();
    }

    void wakeWithAFailedReadActsOnNothing()
    {
        shutMyGpio fresh;
        QSignalSpy shutDowns(&fresh, &shutMyGpio::sig_shutDown);
        QSignalSpy pollOns(&fresh, &shutMyGpio::sig_pollOn);
        writeFile("/tmp/value", "");
        const int fd = open("/tmp/value", O_RDONLY);
        const int unreadable = open("/tmp", O_RDONLY);
        handleLevel(fresh, fd, "0\n");

        sandbox::OutputCapture stderrText(STDERR_FILENO);
        QCOMPARE(fresh.handleWake(unreadable), -EISDIR);
        QCOMPARE(stderrText.text(), QByteArray("check upper dor error: Is a directory\n"));
        QCOMPARE(log->take(), QStringList());
        QCOMPARE(shutDowns.count(), 1);
        // The power-off is still the state the next level meets.
        handleLevel(fresh, fd, "1\n");
        QCOMPARE(pollOns.count(), 1);
        close(unreadable);
        close(fd);
    }

    // Last: run keeps its thread for the rest of the process.
    void runSetsUpTheLinesAndWatchesTheSignal()
    {
        writeFile("/sys/class/gpio/export", "");
        exportLine(55);
        exportLine(100);
        QFile::remove(linePath(55, "value"));
        writeFile(tablePath, "/dev/sdb1 /media/b vfat rw 0 0\n");
        QVERIFY(sandbox::bindMountTable(tablePath));
        struct sigaction interrupt = {};
        interrupt.sa_handler = [](int) { interrupted = 1; };
        QCOMPARE(sigaction(SIGUSR1, &interrupt, nullptr), 0);

        QThread* thread = new QThread;
        shutMyGpio* running = new shutMyGpio;
        running->moveToThread(thread);
        connect(thread, &QThread::started, [this] { watcherThread = pthread_self(); watcherTid = gettid(); });
        connect(thread, &QThread::started, running, &shutMyGpio::run);
        connect(running, &shutMyGpio::sig_shutDown, this, [this] { ++shutDowns; });
        connect(running, &shutMyGpio::sig_pollOn, this, [this] { ++pollOns; });
        sandbox::OutputCapture openFailures(STDERR_FILENO);
        thread->start();

        // The value file is missing at first: reported, then tried once a second.
        const QString notWatched = "shutMyGpio run  power signal not watched, retry every second:  No such file or directory";
        const QByteArray openFailure = "gpio/fd_open: No such file or directory\n";
        QTRY_VERIFY(log->texts().contains(notWatched));
        QTRY_VERIFY(openFailures.text().count(openFailure) >= 2);
        QVERIFY(QFile::link(sandbox::signalFile, linePath(55, "value")));
        QTRY_VERIFY(log->texts().contains("shutMyGpio run  power signal watched"));
        QCOMPARE(log->take(), QStringList({"=======20160408======MyGpio=====run",
                                              "shutMyGpio gpio_set_value  str =  \"/sys/class/gpio/gpio100/value\"",
                                              "shutMyGpio gpio_open /sys/class/gpio /open \"55\"   error", notWatched,
                                              "shutMyGpio run  power signal watched"}));
        const QByteArray failures = openFailures.text();
        // A second or two of retries: far fewer than a busy loop's.
        QVERIFY(failures.count(openFailure) < 10);
        QCOMPARE(failures, openFailure.repeated(failures.count(openFailure)));
        QCOMPARE(readFile("/sys/class/gpio/export"), QByteArray());
        QCOMPARE(readFile(linePath(55, "direction")) + readFile(linePath(55, "edge")), QByteArray("infalling"));
        QCOMPARE(readFile(linePath(100, "direction")) + readFile(linePath(100, "value")), QByteArray("out1"));

        QVERIFY(sandbox::setSignalLevel("0"));
        QTRY_COMPARE(shutDowns, 1);
        QCOMPARE(log->take(), QStringList({"shutMyGpio run val =  \"0\"", "shutMyGpio run  receive poweroff signal",
                                              "umount  \"/dev/sdb1\"  from  \"/media/b\""}));
        QVERIFY(sandbox::setSignalLevel("1"));
        QTRY_COMPARE(pollOns, 1);
        QCOMPARE(shutDowns, 1);
        sandbox::unbindMountTable();

        // A wait cut short by a signal is reported, and the watch goes on.
        QTRY_VERIFY(waitsInPoll(watcherTid));
        sandbox::OutputCapture pollFailure(STDERR_FILENO);
        QCOMPARE(pthread_kill(watcherThread, SIGUSR1), 0);
        // Only once the wait has ended, or the edge would end it instead.
        QTRY_VERIFY(interrupted);
        QVERIFY(sandbox::setSignalLevel("2"));
        QTRY_VERIFY(log->texts().contains("shutMyGpio run val =  \"2\""));
        QCOMPARE(pollFailure.text(), QByteArray("poll error: Interrupted system call\n"));
    }
};

SANDBOXED_TEST_MAIN(tst_shutMyGpio)
#include "tst_shutMyGpio.moc"
