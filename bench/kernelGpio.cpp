#include "kernelGpio.h"

#include "sysfsGpio.h"

#include <QFile>
#include <QList>
#include <QMutexLocker>
#include <QPair>

#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kernelGpio {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QByteArray();
    return file.readAll();
}

bool setInput(unsigned int line, bool high)
{
    const QByteArray path = "/sys/kernel/debug/gpio-mockup/gpiochip0/" + QByteArray::number(line);
    const int fd = open(path.constData(), O_WRONLY);
    if (fd < 0)
        return false;
    const bool written = write(fd, high ? "1" : "0", 1) == 1;
    close(fd);
    return written;
}

bool waitsInPoll(pid_t tid)
{
    const QByteArray call = readFile(QString("/proc/self/task/%1/syscall").arg(tid)).split(' ').value(0);
    return call == QByteArray::number(SYS_poll) || call == QByteArray::number(SYS_ppoll);
}

qint64 nowNs()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000000000 + now.tv_nsec;
}

EdgeProbe::EdgeProbe(unsigned int line)
    : fd(open(sysfsGpio::valuePath(line).c_str(), O_RDONLY | O_NONBLOCK))
{
}

EdgeProbe::~EdgeProbe()
{
    if (fd >= 0)
        close(fd);
}

bool EdgeProbe::arm()
{
    char text[8];
    return fd >= 0 && lseek(fd, 0, SEEK_SET) == 0 && read(fd, text, sizeof text) > 0;
}

bool EdgeProbe::edgeWithin(int milliseconds)
{
    pollfd wait = {fd, POLLPRI, 0};
    return poll(&wait, 1, milliseconds) == 1 && (wait.revents & POLLPRI);
}

namespace {

QMutex messagesLock;
QList<QPair<qint64, QString>> messages;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& msg)
{
    const qint64 at = nowNs();
    QMutexLocker locker(&messagesLock);
    messages.append(qMakePair(at, msg));
}

} // namespace

void keepMessages()
{
    qInstallMessageHandler(keepMessage);
}

QStringList takeMessages()
{
    QMutexLocker locker(&messagesLock);
    QStringList taken;
    for (const auto& message : messages)
        taken << message.second;
    messages.clear();
    return taken;
}

qint64 timeOf(const QString& text)
{
    QMutexLocker locker(&messagesLock);
    for (const auto& message : messages)
        if (message.second == text)
            return message.first;
    return -1;
}

int countOf(const QString& text)
{
    QMutexLocker locker(&messagesLock);
    int count = 0;
    for (const auto& message : messages)
        count += message.second == text;
    return count;
}

RunningWatcher::RunningWatcher()
    : watcher(new shutMyGpio)
{
    watcher->moveToThread(&thread);
    // Direct: counted and hooked on the watcher's thread, at the emit.
    QObject::connect(watcher, &shutMyGpio::sig_shutDown, watcher, [this] {
        lastShutDown = nowNs();
        ++shutDownCount;
        runHook(shutDownHook);
    }, Qt::DirectConnection);
    QObject::connect(watcher, &shutMyGpio::sig_pollOn, watcher, [this] {
        ++pollOnCount;
        runHook(pollOnHook);
    }, Qt::DirectConnection);
    QObject::connect(&thread, &QThread::started, watcher, [this] { threadId = gettid(); }, Qt::DirectConnection);
    QObject::connect(&thread, &QThread::started, watcher, &shutMyGpio::run);
}

void RunningWatcher::start()
{
    thread.start();
    while (threadId == 0)
        QThread::msleep(1);
}

void RunningWatcher::atShutDown(std::function<void()> hook)
{
    QMutexLocker locker(&hookLock);
    shutDownHook = hook;
}

void RunningWatcher::atPollOn(std::function<void()> hook)
{
    QMutexLocker locker(&hookLock);
    pollOnHook = hook;
}

void RunningWatcher::runHook(const std::function<void()>& hook)
{
    std::function<void()> copy;
    {
        QMutexLocker locker(&hookLock);
        copy = hook;
    }
    if (copy)
        copy();
}

} // namespace kernelGpio
