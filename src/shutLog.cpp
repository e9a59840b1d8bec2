#include "shutLog.h"

#include <QDateTime>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <mutex>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

// Older file names are formed in buffers of this size, so a name longer than
// 255 bytes is cut there.
const size_t nameBufferSize = 256;

// A record buffer that grew past this for one huge message is given back
// rather than kept for the rest of the process's life.
const size_t keptRecordCapacity = 16 * 1024;

// One lock for every log of the process (there is one). A thread that forks
// while another is inside a record would leave the child a lock held for
// ever: the fork takes it first and both sides give it back. It is a plain
// lock, since the child's thread has a new id and could not give back one
// that checks its owner.
std::mutex logLock;

void lockForFork()
{
    logLock.lock();
}

void unlockAfterFork()
{
    logLock.unlock();
}

const char* levelTag(QtMsgType type)
{
    switch (static_cast<int>(type)) {
    case QtDebugMsg: return " <DEBUG> ";
    case QtWarningMsg: return " <WARNING> ";
    case QtCriticalMsg: return " <CRITICAL> ";
    case QtFatalMsg: return " <FATAL> ";
    default: return "";
    }
}

void appendDigits(std::string& out, int value, int width)
{
    char digits[4];
    for (int i = width - 1; i >= 0; --i) {
        digits[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    out.append(digits, static_cast<size_t>(width));
}

// The time as "yyyy.MM.dd hh:mm:ss.zzz" in UTC. Formatted by hand: parsing
// the format string for every record would cost more than the write itself.
void appendUtcTime(std::string& out)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    int year, month, day;
    now.date().getDate(&year, &month, &day);
    const QTime time = now.time();
    appendDigits(out, year, 4);
    out += '.';
    appendDigits(out, month, 2);
    out += '.';
    appendDigits(out, day, 2);
    out += ' ';
    appendDigits(out, time.hour(), 2);
    out += ':';
    appendDigits(out, time.minute(), 2);
    out += ':';
    appendDigits(out, time.second(), 2);
    out += '.';
    appendDigits(out, time.msec(), 3);
}

void olderFileName(char (&buffer)[nameBufferSize], const std::string& logPath, int number)
{
    snprintf(buffer, sizeof buffer, "%s.%d", logPath.c_str(), number);
}

} // namespace

shutLog::shutLog(const char* dir, const char* name, int maxSize, int maxFiles)
    : logDir(dir)
    , logName(name)
    , maxSize(maxSize)
    , maxFiles(maxFiles)
    , fd(-1)
    , logPath(logDir + "/" + logName)
    , nameCheckedAt(0)
{
    static const int forkHandled = pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
    Q_UNUSED(forkHandled);
}

shutLog::~shutLog()
{
    closeLog();
}

int shutLog::openLog()
{
    const std::lock_guard<std::mutex> held(logLock);
    return openFile();
}

int shutLog::closeLog()
{
    const std::lock_guard<std::mutex> held(logLock);
    return closeFile();
}

int shutLog::shiftFiles()
{
    const std::lock_guard<std::mutex> held(logLock);
    return rotateFiles();
}

int shutLog::openFile()
{
    if (fd >= 0)
        return 0;
    fd = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0666);
    if (fd < 0) {
        const int err = errno;
        fprintf(stderr, "open log failed: %s\n", strerror(err));
        return -err;
    }
    return 0;
}

int shutLog::closeFile()
{
    if (fd >= 0) {
        close(fd);
        fd = -1;
    }
    return 0;
}

int shutLog::statOpenFile(struct stat& st)
{
    if (fstat(fd, &st) < 0) {
        const int err = errno;
        fprintf(stderr, "get file size failed: %s\n", strerror(err));
        return -err;
    }
    return 0;
}

// Whether the open file is still the live file. Deleted (an operator
// clearing the logs), it has no name left, which the fstat of every record
// shows. Renamed (a log collector moving it), only the name tells; it is
// looked up at most once a second, which costs nothing per record, and the
// records of that second stay with the moved file.
bool shutLog::stillLive(const struct stat& st)
{
    if (st.st_nlink == 0)
        return false;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    if (now.tv_sec == nameCheckedAt)
        return true;
    nameCheckedAt = now.tv_sec;
    struct stat named;
    return stat(logPath.c_str(), &named) == 0 && named.st_dev == st.st_dev && named.st_ino == st.st_ino;
}

int shutLog::getFileSize()
{
    const std::lock_guard<std::mutex> held(logLock);
    if (fd < 0)
        return 0;
    struct stat st;
    const int got = statOpenFile(st);
    if (got < 0)
        return got;
    // A file past what an int holds is over any limit; say so rather than
    // wrap into a negative size that reads as a failure.
    if (st.st_size > INT_MAX)
        return INT_MAX;
    return static_cast<int>(st.st_size);
}

int shutLog::rotateFiles()
{
    char from[nameBufferSize];
    char to[nameBufferSize];
    for (int k = maxFiles; k >= 1; --k) {
        olderFileName(from, logPath, k);
        if (access(from, F_OK) != 0)
            continue;
        if (k == maxFiles) {
            if (unlink(from) < 0) {
                const int err = errno;
                fprintf(stderr, "unlink file failed: %s\n", strerror(err));
                return -err;
            }
            continue;
        }
        olderFileName(to, logPath, k + 1);
        if (rename(from, to) < 0) {
            const int err = errno;
            fprintf(stderr, "rename file %s failed: %s\n", from, strerror(err));
            return -err;
        }
    }
    closeFile();
    snprintf(to, sizeof to, "%s.1", logPath.c_str());
    if (rename(logPath.c_str(), to) < 0) {
        const int err = errno;
        fprintf(stderr, "rename file %s failed: %s\n", logPath.c_str(), strerror(err));
        return -err;
    }
    return 0;
}

int shutLog::saveLog(QtMsgType type, const QMessageLogContext& context, const QString& msg)
{
    Q_UNUSED(context);
    const std::lock_guard<std::mutex> held(logLock);
    if (fd < 0) {
        const int opened = openFile();
        if (opened < 0)
            return opened;
    }
    struct stat st;
    int got = statOpenFile(st);
    if (got < 0)
        return got;
    if (!stillLive(st)) {
        closeFile();
        const int opened = openFile();
        if (opened < 0)
            return opened;
        got = statOpenFile(st);
        if (got < 0)
            return got;
    }
    // Rotate before the record that finds the file full, so the live file
    // passes the limit by one record at most.
    if (st.st_size >= maxSize) {
        closeFile();
        const int shifted = rotateFiles();
        if (shifted < 0) {
            fwrite("shiftFiles failed\n", 1, 18, stderr);
            return shifted;
        }
        const int opened = openFile();
        if (opened < 0)
            return opened;
    }

    record.clear();
    appendUtcTime(record);
    record += levelTag(type);
    const QByteArray text = msg.toUtf8();
    record.append(text.constData(), static_cast<size_t>(text.size()));
    record += '\n';

    const ssize_t written = write(fd, record.data(), record.size());
    const int err = errno;
    if (record.capacity() > keptRecordCapacity)
        std::string().swap(record);
    if (written < 0) {
        fprintf(stderr, "write to log failed: %s\n", strerror(err));
        return -err;
    }
    return 0;
}
