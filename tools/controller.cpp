#include "controller.h"

#include "privateTree.h"

#include <QElapsedTimer>
#include <QMutexLocker>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/mount.h>
#include <unistd.h>

namespace controller {

namespace {

const char specials[] = "\r\n\t\\";
const char names[] = "rnt\\";

QElapsedTimer& sinceStart()
{
    static QElapsedTimer started;
    if (!started.isValid())
        started.start();
    return started;
}

} // namespace

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
        // A run needs a byte before it and its closing brace; else the text stands as it is.
        const bool run = next == '{' && !bytes.isEmpty() && text.indexOf('}', i) > 0;
        if (text[i] != '\\' || !next || !(strchr("rnt\\x", next) || run)) {
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

Controller::Controller(const char* bindPath)
    : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    , stopPipe{-1, -1}
{
    if (master < 0 || grantpt(master) < 0 || unlockpt(master) < 0 || pipe2(stopPipe, O_CLOEXEC) < 0)
        perror("controller: cannot make a pseudo-terminal");
    slavePath = master < 0 ? "" : ptsname(master);
    if (bindPath && privateTree::bindFile(slavePath.constData(), bindPath))
        boundAt = bindPath;
}

Controller::~Controller()
{
    hangUp();
    ::close(stopPipe[0]);
    ::close(stopPipe[1]);
    // Lazily: a port of the link under test may still hold the device.
    if (!boundAt.isEmpty()) {
        umount2(boundAt.constData(), MNT_DETACH);
        unlink(boundAt.constData());
    }
}

void Controller::write(const QByteArray& bytes)
{
    if (::write(master, bytes.constData(), static_cast<size_t>(bytes.size())) != bytes.size())
        perror("controller: cannot write");
}

void Controller::hangUp()
{
    if (worker.joinable()) {
        if (::write(stopPipe[1], "s", 1) < 0)
            perror("controller: cannot stop");
        worker.join();
    }
    if (master >= 0)
        ::close(master);
    master = -1;
}

void Controller::start()
{
    sinceStart();
    worker = std::thread([this] { serve(); served = true; });
}

void Controller::queue(const Reply& reply)
{
    QMutexLocker locked(&lock);
    replies.append(reply);
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

QByteArray Controller::wire()
{
    for (int waited = 0; worker.joinable() && !served && waited < 3000; ++waited)
        QThread::msleep(1);
    QMutexLocker locked(&lock);
    return wireBytes;
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
        {
            QMutexLocker locked(&lock);
            wireBytes.append(chunk, static_cast<int>(got));
        }
        int end;
        while ((end = pending.indexOf("\r\n")) >= 0) {
            const QByteArray command = pending.left(end).mid(pending.startsWith('~') ? 1 : 0);
            pending.remove(0, end + 2);
            const Reply reply = replyTo(command);
            for (const QByteArray& answer : reply.chunks) {
                QThread::msleep(static_cast<unsigned long>(reply.pauseMs));
                pollfd early = {master, POLLIN, 0};
                if (!pending.isEmpty() || poll(&early, 1, 0) > 0) {
                    QMutexLocker locked(&lock);
                    overlap = true;
                }
                write(answer);
            }
        }
    }
}

Reply Controller::replyTo(const QByteArray& command)
{
    QMutexLocker locked(&lock);
    received << QString::fromUtf8(command);
    // In whole milliseconds rounded down: Qt 5.4's elapsed() can round up.
    arrivals << sinceStart().nsecsElapsed() / 1000000;
    if (numbered.contains(received.size()))
        return numbered.take(received.size());
    if (!replies.isEmpty())
        return replies.takeFirst();
    Reply reply;
    if (echoPauseMs >= 0) {
        reply.chunks << "ok 5 " + command + "\r\n";
        reply.pauseMs = echoPauseMs;
    } else if (freeSlots >= 0) {
        const bool zero = command == "M117" && zeroPollsLeft > 0;
        zeroPollsLeft -= zero;
        reply.chunks << "ok " + QByteArray::number(zero ? 0 : freeSlots) + "\r\n";
    }
    return reply;
}

} // namespace controller
