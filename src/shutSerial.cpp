#include "shutSerial.h"

#include <QDebug>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace {

const int receiveCapacity = 1024;
// "~", the code and "\r\n" make at most 256 bytes on the wire.
const size_t maxCodeLength = 253;
const size_t framedCapacity = maxCodeLength + 3 + 1;
// One-second reads: more consecutive silent ones than this end a recv.
const int maxSilentReads = 5;
const cc_t readTimeoutTenths = 10;

} // namespace

shutSerial::shutSerial(const std::string& deviceName)
    : fd(-1)
    , deviceName(deviceName)
    , savedAttributes()
    , portAttributes()
    , errorText("success")
    , lastCode("M112")
    , waitingQuit(false)
    , recvBuffer(nullptr)
    , recvCapacity(receiveCapacity)
    , readPos(0)
    , fillLevel(0)
    , filePerValue(0)
    , stopFlag(false)
    , quitFlag(false)
    , silentReads(0)
{
    qDebug() << "shutSerial" << "shutSerial" << " add new";
    recvBuffer = new char[recvCapacity];
}

shutSerial::~shutSerial()
{
    delete[] recvBuffer;
    close();
}

int shutSerial::fail()
{
    errorText = strerror(errno);
    return -1;
}

int shutSerial::open()
{
    if (fd >= 0)
        return 0;
    // Blocking reads on purpose: VTIME below bounds each one to a second.
    fd = ::open(deviceName.c_str(), O_RDWR);
    if (fd < 0 || tcgetattr(fd, &savedAttributes) < 0)
        return fail();

    // Only what the exchange needs; character size, parity and the control
    // modes stay as the device had them.
    portAttributes = savedAttributes;
    portAttributes.c_iflag &= ~ICRNL;
    portAttributes.c_oflag &= ~ONLCR;
    portAttributes.c_lflag &= ~(ICANON | ECHO);
    portAttributes.c_cc[VTIME] = readTimeoutTenths;
    portAttributes.c_cc[VMIN] = 0;
    cfsetispeed(&portAttributes, B115200);
    cfsetospeed(&portAttributes, B115200);
    if (tcsetattr(fd, TCSANOW, &portAttributes) < 0)
        return fail();
    return 0;
}

int shutSerial::close()
{
    if (fd < 0)
        return 0;
    if (tcsetattr(fd, TCSANOW, &savedAttributes) < 0)
        return fail();
    ::close(fd);
    fd = -1;
    return 0;
}

int shutSerial::send(const std::string& code)
{
    if (code.size() > maxCodeLength) {
        errorText = "message size is too long";
        return -1;
    }
    char framed[framedCapacity];
    const int length = snprintf(framed, sizeof framed, "~%s\r\n", code.c_str());
    lastCode = framed;

    // A pending alarm is delivered after the write, never in the middle of it.
    sigset_t alarm;
    sigset_t previousMask;
    sigemptyset(&alarm);
    sigaddset(&alarm, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarm, &previousMask);
    const ssize_t written = ::write(fd, framed, static_cast<size_t>(length));
    if (written < 0)
        errorText = strerror(errno);
    sigprocmask(SIG_SETMASK, &previousMask, nullptr);
    return written < 0 ? -1 : 0;
}

// Hands out the line at readPos when a "\r\n" ends it in the buffer and
// returns its length; -1 while no line end is buffered. The byte at readPos
// never counts as the line feed of a line end. A line of any length is
// handed out whole: the buffer bounds it, so nothing can be overrun.
int shutSerial::takeLine(std::string& line)
{
    for (unsigned int i = readPos + 1; i < fillLevel; ++i) {
        if (recvBuffer[i] != '\n' || recvBuffer[i - 1] != '\r')
            continue;
        const char* start = recvBuffer + readPos;
        const unsigned int length = i - readPos - 1;
        line.assign(start, strnlen(start, length));
        readPos = i + 1;
        // The controller may pad a line end with a zero byte.
        if (readPos < fillLevel && recvBuffer[readPos] == '\0')
            ++readPos;
        if (readPos == fillLevel) {
            readPos = 0;
            fillLevel = 0;
        }
        return static_cast<int>(length);
    }
    return -1;
}

int shutSerial::recv(std::string& line)
{
    silentReads = 0;
    line.clear();
    // An empty line sends the call back to the device before the rest of the
    // buffer is looked at again; so does a silent read.
    bool lookInBuffer = fillLevel > 0;
    for (;;) {
        if (lookInBuffer) {
            const int length = takeLine(line);
            if (length > 0)
                return length;
        }
        const ssize_t got = ::read(fd, recvBuffer + fillLevel, recvCapacity - fillLevel);
        if (got > 0) {
            silentReads = 0;
            fillLevel += static_cast<unsigned int>(got);
            lookInBuffer = true;
        } else if (got == 0) {
            std::cout << "serial waiting... : " << std::endl;
            // A yield between two waits; the read itself already waited.
            sleep(0);
            if (++silentReads > maxSilentReads)
                return 0;
            lookInBuffer = false;
        } else {
            silentReads = 0;
            fail();
            std::cout << "read failed:" << errorText << std::endl;
            return -1;
        }
    }
}

std::string shutSerial::cleanSerialBuff()
{
    std::string drained;
    char byte;
    // Silence ends the drain, and so does a failed read: retrying one would
    // never end on a port that is closed.
    while (::read(fd, &byte, 1) > 0) {
        if (byte != '\0')
            drained += byte;
    }
    return drained;
}

std::string shutSerial::codeSent() const
{
    return lastCode;
}

std::string& shutSerial::errmsg()
{
    return errorText;
}

bool shutSerial::quitOrNot()
{
    return quitFlag;
}

bool shutSerial::stopOrNot()
{
    return stopFlag;
}

int shutSerial::filePer()
{
    return filePerValue;
}

void shutSerial::setFilePer(int value)
{
    filePerValue = value;
}

void shutSerial::stopPrinting()
{
    stopFlag = true;
}

void shutSerial::continuePrinting()
{
    stopFlag = false;
}

void shutSerial::quitPrinting()
{
    quitFlag = true;
}

void shutSerial::controlInit()
{
    filePerValue = 0;
    stopFlag = false;
    quitFlag = false;
}

void shutSerial::setWaitingQuit()
{
    waitingQuit = true;
}
