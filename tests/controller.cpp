#include "controller.h"

#include "privateTree.h"
#include "sandbox.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMutexLocker>
#include <QThread>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

namespace controller {

namespace {

const char statusQuery[] = "M117";

bool failed(const char* what, const char* path)
{
    fprintf(stderr, "controller: %s %s: %s\n", what, path, strerror(errno));
    return false;
}

QElapsedTimer& sinceStart()
{
    static QElapsedTimer started;
    if (!started.isValid())
        started.start();
    return started;
}

void onSignal(int) {}

} // namespace

Controller::Controller(const char* bindPath)
    : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    , stopPipe{-1, -1}
{
    if (master < 0 || grantpt(master) < 0 || unlockpt(master) < 0) {
        failed("cannot open a pseudo-terminal", "/dev/ptmx");
        return;
    }
    slavePath = ptsname(master);
    if (bindPath && privateTree::bindFile(slavePath.constData(), bindPath))
        boundAt = bindPath;
    if (pipe2(stopPipe, O_CLOEXEC) < 0)
        failed("cannot make a pipe", "");
}

Controller::~Controller()
{
    if (worker.joinable()) {
        const char stop = 's';
        if (::write(stopPipe[1], &stop, 1) < 0)
            failed("cannot stop", "controller");
        worker.join();
    }
    ::close(stopPipe[0]);
    ::close(stopPipe[1]);
    hangUp();
    // Lazily: a port of the link under test may still hold the device. The
    // mount point goes too, unless another controller is bound there still.
    if (!boundAt.isEmpty()) {
        umount2(boundAt.constData(), MNT_DETACH);
        unlink(boundAt.constData());
    }
}

void Controller::write(const QByteArray& bytes)
{
    if (::write(master, bytes.constData(), static_cast<size_t>(bytes.size())) != bytes.size())
        failed("cannot write to", slave());
}

QByteArray Controller::readWire(int quietMs)
{
    QByteArray bytes;
    pollfd ready = {master, POLLIN, 0};
    char chunk[4096];
    while (poll(&ready, 1, quietMs) > 0) {
        const ssize_t got = ::read(master, chunk, sizeof chunk);
        if (got <= 0)
            break;
        bytes.append(chunk, static_cast<int>(got));
    }
    return bytes;
}

void Controller::hangUp()
{
    if (master >= 0)
        ::close(master);
    master = -1;
}

void Controller::start()
{
    sinceStart();
    worker = std::thread([this] { serve(); });
}

void Controller::queue(const Reply& reply)
{
    QMutexLocker locked(&lock);
    replies.append(reply);
}

void Controller::queue(const QByteArray& answer)
{
    Reply reply;
    reply.chunks << answer;
    queue(reply);
}

void Controller::answerAt(int exchange, const Reply& reply)
{
    QMutexLocker locked(&lock);
    numbered.insert(exchange, reply);
}

void Controller::setFreeSlots(int count)
{
    QMutexLocker locked(&lock);
    freeSlots = count;
}

void Controller::zeroPolls(int polls)
{
    QMutexLocker locked(&lock);
    zeroPollsLeft = polls;
}

void Controller::echoAfter(int pauseMs)
{
    QMutexLocker locked(&lock);
    echoPauseMs = pauseMs;
}

QStringList Controller::commands()
{
    QMutexLocker locked(&lock);
    return received;
}

QList<qint64> Controller::arrivalsMs()
{
    QMutexLocker locked(&lock);
    return arrivals;
}

bool Controller::overlapped()
{
    QMutexLocker locked(&lock);
    return overlap;
}

void Controller::serve()
{
    QByteArray pending;
    char chunk[4096];
    for (;;) {
        pollfd ready[2] = {{master, POLLIN, 0}, {stopPipe[0], POLLIN, 0}};
        if (poll(ready, 2, -1) < 0 || ready[1].revents)
            return;
        const ssize_t got = ::read(master, chunk, sizeof chunk);
        if (got <= 0)
            return;
        pending.append(chunk, static_cast<int>(got));
        int end;
        while ((end = pending.indexOf("\r\n")) >= 0) {
            QByteArray command = pending.left(end);
            pending.remove(0, end + 2);
            if (command.startsWith('~'))
                command.remove(0, 1);
            if (!pending.isEmpty()) {
                QMutexLocker locked(&lock);
                overlap = true;
            }
            answer(command);
        }
    }
}

void Controller::answer(const QByteArray& command)
{
    const Reply reply = replyTo(command);
    for (const QByteArray& chunk : reply.chunks) {
        QThread::msleep(static_cast<unsigned long>(reply.pauseMs));
        pollfd early = {master, POLLIN, 0};
        if (poll(&early, 1, 0) > 0) {
            QMutexLocker locked(&lock);
            overlap = true;
        }
        write(chunk);
    }
}

Reply Controller::replyTo(const QByteArray& command)
{
    QMutexLocker locked(&lock);
    received << QString::fromUtf8(command);
    arrivals << sinceStart().elapsed();
    if (numbered.contains(received.size()))
        return numbered.take(received.size());
    if (!replies.isEmpty())
        return replies.takeFirst();
    Reply reply;
    if (echoPauseMs >= 0) {
        reply.chunks << "ok 5 " + command + "\r\n";
        reply.pauseMs = echoPauseMs;
        return reply;
    }
    int count = freeSlots;
    if (command == statusQuery && zeroPollsLeft > 0) {
        --zeroPollsLeft;
        count = 0;
    }
    reply.chunks << "ok " + QByteArray::number(count) + "\r\n";
    return reply;
}

bool Runner::interruptRead()
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = onSignal;
    sigaction(SIGCHLD, &action, nullptr);

    const auto waitInRead = [](int fd) {
        char byte;
        if (read(fd, &byte, 1) < 0) {
        }
    };
    QElapsedTimer waited;
    waited.start();
    while (!done && waited.elapsed() < 10000) {
        if (tid && sandbox::sleepsLike(tid, waitInRead))
            return pthread_kill(thread.native_handle(), SIGCHLD) == 0;
        QThread::msleep(1);
    }
    return false;
}

bool Runner::waitDone(int timeoutMs)
{
    QElapsedTimer waited;
    waited.start();
    while (!done && waited.elapsed() < timeoutMs)
        QThread::msleep(1);
    return done;
}

} // namespace controller
