#include "shutSerialObject.h"

#include "shutSerial.h"

#include <QDebug>
#include <QMutexLocker>

#include <climits>
#include <cstdlib>
#include <iostream>

#include <unistd.h>

QMutex mutex;

namespace {

const char deviceName[] = "/dev/ttyO1";
const char statusQuery[] = "M117";
const char exchangeFailed[] = "send failed.";
const char unparsedAnswer[] = "Send failed for parseResult.";
// The first command goes out without asking the controller first.
const int initialFreeSlots = 8;
const useconds_t pollIntervalUs = 80000;
// Free-slot counts above this are worth a line in the log.
const int reportSlotsAbove = 16;

// Commands and answers may hold quotes, backslashes and control characters.
// From Qt 5.5 on, a quoted string in a debug message has them escaped; the
// appliance's Qt 5.4 writes the text as it stands, so the messages that carry
// them write their own quotes.
QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

} // namespace

shutSerialObject::shutSerialObject()
    : QObject(nullptr)
    , port(nullptr)
    , outputControl()
    , bufsizeFlag(initialFreeSlots)
{
    // A link whose port did not open stays usable: every exchange fails at
    // its read and tries the port again.
    if (serialOpen() < 0)
        qDebug() << "Serial open failed.";
    qDebug() << "shutSerialObject" << "shutSerialObject" << " add new";
}

shutSerialObject::~shutSerialObject()
{
    port->close();
    delete port;
}

int shutSerialObject::serialOpen()
{
    qDebug() << "shutSerialObject" << "serialOpen" << "new a serial device";
    qDebug() << "shutSerialObject" << "serialOpen" << " add new";
    port = new shutSerial(deviceName);
    if (port->open() == 0)
        return 0;
    std::cout << port->errmsg() << std::endl;
    return -1;
}

std::string shutSerialObject::serialSendBase(std::string code)
{
    // The exchange is judged by its answer alone: a command that could not
    // be written simply gets none.
    port->send(code);
    std::string answer;
    if (port->recv(answer) < 0) {
        qWarning() << code.c_str() << " send & recv error.";
        std::cout << port->errmsg() << std::endl;
        port->close();
        port->open();
        return exchangeFailed;
    }
    return answer;
}

QString shutSerialObject::serialCheckCode(QString code)
{
    QMutexLocker exchange(&mutex);
    std::string answer;
    try {
        answer = serialSendBase(code.toStdString());
    } catch (...) {
        // Whatever went wrong, the caller gets an empty answer and the
        // mutex is released.
        qDebug() << "serialSendBase error.";
    }
    // Status queries come every 80 ms while the controller is full; they
    // would drown the log.
    if (code != QLatin1String(statusQuery))
        qDebug().noquote() << "serial send: " << quoted(code) << "; recv" << answer.c_str();
    return QString::fromUtf8(answer.c_str());
}

int shutSerialObject::parseResult(std::string answer, int& count)
{
    const size_t digits = answer.find_first_of("0123456789");
    if (digits == std::string::npos)
        return -1;
    // Where long is wider than int, a count beyond int saturates as it does
    // on the 32-bit appliance.
    const long value = strtol(answer.c_str() + digits, nullptr, 10);
    count = value > INT_MAX ? INT_MAX : static_cast<int>(value);
    return 0;
}

void shutSerialObject::statusCheck()
{
    if (bufsizeFlag != 0)
        return;
    QString answer;
    for (;;) {
        usleep(pollIntervalUs);
        answer = serialCheckCode(QLatin1String(statusQuery));
        if (parseResult(answer.toStdString(), bufsizeFlag) < 0)
            break;
        if (outputControl.isSerialObjOutPut())
            qDebug() << "Check buff left:" << QString::number(bufsizeFlag);
        if (bufsizeFlag != 0)
            return;
    }
    // The command goes out all the same; its own answer brings a new count.
    qDebug().noquote() << "Unknown result: " << quoted(answer) << " [bufsizeFlag]: " << quoted(QString::number(bufsizeFlag))
                       << "\n";
}

QString shutSerialObject::serialSendCode(QString code)
{
    if (bufsizeFlag == 0)
        statusCheck();
    const QString answer = serialCheckCode(code);
    if (parseResult(answer.toStdString(), bufsizeFlag) < 0) {
        qDebug().noquote() << "Unknown result: " << quoted(answer) << " [bufsizeFlag]: "
                           << quoted(QString::number(bufsizeFlag));
        return QLatin1String(unparsedAnswer);
    }
    // A query answer without digits leaves the command's count in place.
    parseResult(serialCheckCode(QLatin1String(statusQuery)).toStdString(), bufsizeFlag);
    if (bufsizeFlag > reportSlotsAbove)
        qDebug() << "Buff left: " << QString::number(bufsizeFlag) << " ;";
    return answer;
}
