#include "sandbox.h"

#include "privateTree.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtTest>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <thread>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace sandbox {

const char cardDir[] = "/tmp/mnt/dev/mmcblk0p3";
const char logDir[] = "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles";
const char livePath[] = "/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles/shutDown.log";
const char recordTime[] = "\\d{4}\\.\\d\\d\\.\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3}";
const char childProgram[] = "/opt/project/Tolven-ii";

using privateTree::mountTmpfs;

namespace {

// The first field of /proc/self/task/<tid>/syscall: the call the thread
// sleeps in, by number, or "running".
QByteArray callOf(pid_t tid)
{
    return readFile(QString("/proc/self/task/%1/syscall").arg(tid)).split(' ').value(0);
}

// What callOf shows for a thread of our own asleep in the wait.
QByteArray sleepingCall(void (*wait)(int fd))
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0)
        return QByteArray();
    std::atomic<pid_t> tid(0);
    std::thread sleeper([&] {
        tid = gettid();
        wait(ends[0]);
    });
    // The same call twice, 50 ms apart: asleep in it, not on the way in.
    QByteArray shown;
    QByteArray last;
    for (int i = 0; i < 100 && shown.isEmpty(); ++i) {
        usleep(50000);
        const QByteArray call = tid ? callOf(tid) : QByteArray();
        if (!call.isEmpty() && call != "running" && call == last)
            shown = call;
        last = call;
    }
    close(ends[1]); // ends the sleeper's wait
    sleeper.join();
    close(ends[0]);
    return shown;
}

} // namespace

bool enter()
{
    return privateTree::enter() && QDir().mkpath(cardDir) && QDir().mkpath(QFileInfo(childProgram).path());
}

void installChild(const QByteArray& script)
{
    QFile::remove(childProgram);
    writeFile(childProgram, script);
    QFile::setPermissions(childProgram, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                            | QFile::ReadOther | QFile::ExeOther);
}

void resetCard()
{
    QDir(cardDir).removeRecursively();
    QDir().mkpath(logDir);
}

bool pin(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    return mount(name.constData(), name.constData(), nullptr, MS_BIND, nullptr) == 0;
}

void unpin(const QString& path)
{
    umount2(QFile::encodeName(path).constData(), MNT_DETACH);
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

QStringList logLines(const QString& path)
{
    QStringList lines = QString::fromUtf8(readFile(path)).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

bool mountGpioTree()
{
    const char gpioClass[] = "/sys/class/gpio";
    if (QFileInfo(gpioClass).isDir())
        return mountTmpfs(gpioClass, "mode=755");
    return mountTmpfs("/sys/class", "mode=755") && QDir().mkdir(gpioClass);
}

const char mountTable[] = "/proc/mounts";

bool bindMountTable(const QString& path)
{
    return mount(QFile::encodeName(path).constData(), mountTable, nullptr, MS_BIND, nullptr) == 0;
}

void unbindMountTable()
{
    umount2(mountTable, MNT_DETACH);
}

bool sleepsLike(pid_t tid, void (*wait)(int fd))
{
    static std::map<void (*)(int), QByteArray> learnt;
    QByteArray& shown = learnt[wait];
    if (shown.isEmpty())
        shown = sleepingCall(wait);
    return !shown.isEmpty() && callOf(tid) == shown;
}

OutputCapture::OutputCapture(int streamFd)
    : streamFd(streamFd)
    , savedFd(dup(streamFd))
    , captureFd(open("/tmp", O_TMPFILE | O_RDWR, 0600))
{
    fflush(nullptr);
    dup2(captureFd, streamFd);
}

OutputCapture::~OutputCapture()
{
    // Qt Test reports a failure on standard output: one raised while the
    // stream was captured must still be seen.
    fflush(nullptr);
    const QByteArray captured = QTest::currentTestFailed() ? text() : QByteArray();
    dup2(savedFd, streamFd);
    close(captureFd);
    close(savedFd);
    if (write(streamFd, captured.constData(), captured.size()) < 0) {
        // Nowhere left to report it.
    }
}

QByteArray OutputCapture::text()
{
    fflush(nullptr);
    QByteArray bytes;
    char chunk[4096];
    ssize_t got;
    off_t at = 0;
    while ((got = pread(captureFd, chunk, sizeof chunk, at)) > 0) {
        bytes.append(chunk, static_cast<int>(got));
        at += got;
    }
    return bytes;
}

} // namespace sandbox
