#include "shutMyGpio.h"

#include "sysfsGpio.h"

#include <QDebug>
#include <QRegExp>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

using sysfsGpio::Outcome;

namespace {

const unsigned int powerLine = 55;
const unsigned int outputLine = 100;
const int lineCheckMs = 1000;
const int levelTextSize = 16;
const int levelBase = 10;
const unsigned int retrySeconds = 1;

const char mountTable[] = "/proc/mounts";
const char logPartition[] = "/dev/mmcblk0p3";
const char storagePartition[] = "/dev/sd[a-z]+[0-9]+";

const char gpioRoot[] = "/sys/class/gpio";

#if QT_VERSION >= QT_VERSION_CHECK(5, 14, 0)
const Qt::SplitBehavior skipEmptyFields = Qt::SkipEmptyParts;
#else
const QString::SplitBehavior skipEmptyFields = QString::SkipEmptyParts;
#endif

// The members' failure messages about a line's file: the name of the root,
// the file and the line, before or at the write.
void reportFailure(const char* function, bool atWrite, const char* file, unsigned int gpio)
{
    QDebug message = qDebug();
    message << "shutMyGpio" << function;
    if (atWrite)
        message << "write";
    message << gpioRoot << file << QString::number(gpio) << "  error";
}

void reportLineFailure(const char* function, const char* file, unsigned int gpio)
{
    reportFailure(function, false, file, gpio);
}

void reportWriteFailure(const char* function, const char* file, unsigned int gpio)
{
    reportFailure(function, true, file, gpio);
}

// Whether the open value file is still the line's: a line unexported (or
// its driver unbound) while the watcher sleeps in poll never wakes it, and
// its value file, once back, is a new file.
bool stillExported(int valueFd)
{
    struct stat opened;
    struct stat named;
    return fstat(valueFd, &opened) == 0 && stat(sysfsGpio::valuePath(powerLine).c_str(), &named) == 0
        && opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

shutMyGpio::shutMyGpio()
    : QObject(nullptr)
    , poweroff_received(false)
{
}

int shutMyGpio::gpio_export(unsigned int gpio)
{
    const Outcome outcome = sysfsGpio::exportLine(gpio);
    if (outcome.failure == sysfsGpio::transferFailed)
        qDebug() << "shutMyGpio" << "gpio_export" << "write" << "/sys/class/gpio/exprot" << "  value:"
                 << QString::number(gpio) << "  error";
    return outcome.result;
}

int shutMyGpio::gpio_unexport(unsigned int gpio)
{
    const Outcome outcome = sysfsGpio::unexportLine(gpio);
    if (outcome.failure == sysfsGpio::openFailed)
        reportLineFailure("gpio_unexport", "/unexprot", gpio);
    else if (outcome.failure == sysfsGpio::transferFailed)
        qDebug() << "shutMyGpio" << "gpio_unexport" << "write unexprot " << gpioRoot << "/exprot"
                 << QString::number(gpio) << "  error";
    return outcome.result;
}

int shutMyGpio::gpio_set_direction(unsigned int gpio, const std::string& dir)
{
    const Outcome outcome = sysfsGpio::setDirection(gpio, dir);
    if (outcome.failure == sysfsGpio::fileMissing)
        reportLineFailure("gpio_set_direction", "/direction", gpio);
    else if (outcome.failure == sysfsGpio::openFailed)
        reportLineFailure("gpio_set_direction", "/direciton", gpio);
    else if (outcome.failure == sysfsGpio::transferFailed)
        reportWriteFailure("gpio_set_direction", "/direction", gpio);
    return outcome.result;
}

int shutMyGpio::gpio_set_value(unsigned int gpio, unsigned int value)
{
    const Outcome outcome = sysfsGpio::setValue(gpio, value);
    if (outcome.failure == sysfsGpio::argumentRefused)
        return outcome.result;
    if (outcome.failure == sysfsGpio::fileMissing) {
        reportLineFailure("gpio_set_value", "/value", gpio);
        return outcome.result;
    }
    qDebug() << "shutMyGpio" << "gpio_set_value" << " str = "
             << QString::fromUtf8(sysfsGpio::valuePath(gpio).c_str());
    if (outcome.failure == sysfsGpio::transferFailed)
        reportWriteFailure("gpio_set_value", "/value", gpio);
    return outcome.result;
}

int shutMyGpio::gpio_get_value(unsigned int gpio, unsigned int* value)
{
    const Outcome outcome = sysfsGpio::getValue(gpio, value);
    if (outcome.failure == sysfsGpio::fileMissing)
        reportLineFailure("gpio_get_value", "/value", gpio);
    return outcome.result;
}

int shutMyGpio::gpio_set_edge(unsigned int gpio, const std::string& edge)
{
    const Outcome outcome = sysfsGpio::setEdge(gpio, edge);
    if (outcome.failure == sysfsGpio::fileMissing)
        reportLineFailure("gpio_set_edge", "/edge", gpio);
    else if (outcome.failure == sysfsGpio::transferFailed)
        reportWriteFailure("gpio_set_edge", "/edge", gpio);
    return outcome.result;
}

int shutMyGpio::gpio_open(unsigned int gpio)
{
    const int fd = ::gpio_open(gpio);
    if (fd < 0)
        reportLineFailure("gpio_open", "/open", gpio);
    return fd;
}

int shutMyGpio::get_mount_list(std::vector<mount_point_t>& list)
{
    list.clear();
    if (access(mountTable, R_OK) < 0)
        return -EINVAL;
    std::ifstream table(mountTable, std::ios::in);
    if (table.fail())
        return -errno;
    const QRegExp separator("\\s+", Qt::CaseSensitive, QRegExp::RegExp);
    std::string line;
    // An I/O error ends the table like its end; what was read is kept.
    while (std::getline(table, line)) {
        const QStringList fields = QString::fromUtf8(line.c_str()).split(separator, skipEmptyFields);
        if (fields.size() > 2)
            list.push_back({fields[0], fields[1], fields[2]});
    }
    return 0;
}

namespace {

// The mount table writes a blank as \040. From Qt 5.5 on, a quoted string in
// a debug message has its backslashes and quotes escaped; the appliance's
// Qt 5.4 writes the text as it stands, so the quotes are written here.
QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

int shutMyGpio::do_poweroff_process()
{
    std::vector<mount_point_t> mounts;
    const QRegExp storage(storagePartition, Qt::CaseSensitive, QRegExp::RegExp);
    // The power is going: flushing comes before anything else, the list
    // below is only a record.
    sync();
    get_mount_list(mounts);
    for (const mount_point_t& mount : mounts) {
        if (mount.device == logPartition || storage.exactMatch(mount.device))
            qDebug().noquote() << "umount " << quoted(mount.device) << " from " << quoted(mount.mount_dir);
    }
    return 0;
}

int shutMyGpio::handleWake(int valueFd)
{
    char text[levelTextSize + 1];
    lseek(valueFd, 0, SEEK_SET);
    const ssize_t got = read(valueFd, text, levelTextSize);
    if (got < 0) {
        // No new level: acting on an older one could repeat a stale power-off.
        const int err = errno;
        fprintf(stderr, "check upper dor error: %s\n", strerror(err));
        return -err;
    }
    text[got] = '\0';
    // Kept as long: on the 32-bit appliance that is int, and on a 64-bit
    // build a huge number must not wrap round to 0 or 1.
    const long level = strtol(text, nullptr, levelBase);
    qDebug() << "shutMyGpio" << "run" << "val = " << QString::number(level);
    if (level == 0) {
        qDebug() << "shutMyGpio" << "run" << " receive poweroff signal";
        poweroff_received = true;
        do_poweroff_process();
        emit sig_shutDown();
    } else if (level == 1 && poweroff_received) {
        poweroff_received = false;
        qDebug() << "shutMyGpio" << "run" << " receive power on signal\n";
        emit sig_pollOn();
    }
    return 0;
}

int shutMyGpio::setUpLines()
{
    gpio_export(powerLine);
    gpio_set_direction(powerLine, "in");
    const int edgeSet = gpio_set_edge(powerLine, "falling");
    if (edgeSet < 0)
        qDebug() << "set edge failed: " << strerror(-edgeSet);
    gpio_export(outputLine);
    gpio_set_direction(outputLine, "out");
    gpio_set_value(outputLine, 1);
    return gpio_open(powerLine);
}

// A watcher that never sees an edge is the worst outcome, so a line that
// cannot be watched is set up again, whole, every second until it can: one
// line on standard error per try at most, and nothing in the size-limited
// log, where it would push out the history.
int shutMyGpio::watchAgain(int err)
{
    qDebug() << "shutMyGpio" << "run" << " power signal not watched, retry every second: " << strerror(err);
    int valueFd;
    do {
        sleep(retrySeconds);
        sysfsGpio::exportLine(powerLine);
        sysfsGpio::setDirection(powerLine, "in");
        const int edgeSet = sysfsGpio::setEdge(powerLine, "falling").result;
        valueFd = ::gpio_open(powerLine);
        if (valueFd >= 0 && edgeSet < 0) {
            close(valueFd);
            valueFd = edgeSet;
        }
    } while (valueFd < 0);
    // Line 100 once, not at every try: "out" drives it low until its value
    // is written.
    sysfsGpio::exportLine(outputLine);
    sysfsGpio::setDirection(outputLine, "out");
    sysfsGpio::setValue(outputLine, 1);
    qDebug() << "shutMyGpio" << "run" << " power signal watched";
    return valueFd;
}

// Every edge marks a sysfs value file with POLLERR beside POLLPRI, so only
// a mark without POLLPRI, or a read that fails, tells that the line is gone:
// then poll returns at once for ever. A line that goes while the wait
// sleeps tells nothing; the wait ends each second to look at the file's
// name, never at its level, which would take an edge's mark away.
int shutMyGpio::watchOnce(int valueFd)
{
    pollfd watched = {valueFd, POLLPRI, 0};
    const int woke = poll(&watched, 1, lineCheckMs);
    if (woke < 0) {
        fprintf(stderr, "poll error: %s\n", strerror(errno));
        return 0;
    }
    if (woke == 0)
        return stillExported(valueFd) ? 0 : -ENODEV;
    if (watched.revents & POLLPRI)
        return handleWake(valueFd);
    const int err = watched.revents & POLLNVAL ? EBADF : EIO;
    fprintf(stderr, "poll error: %s\n", strerror(err));
    return -err;
}

void shutMyGpio::run()
{
    qDebug() << "=======20160408======MyGpio=====run";
    int valueFd = setUpLines();
    if (valueFd < 0)
        valueFd = watchAgain(-valueFd);
    for (;;) {
        const int lost = watchOnce(valueFd);
        if (lost < 0) {
            close(valueFd);
            valueFd = watchAgain(-lost);
        }
    }
}
