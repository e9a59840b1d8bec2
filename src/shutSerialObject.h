#ifndef SHUTSERIALOBJECT_H
#define SHUTSERIALOBJECT_H

#include "OutputControl.h"

#include <QMutex>
#include <QObject>
#include <QString>

#include <string>

class shutSerial;

// Held for exactly one send-and-receive exchange, by every link of the
// process, so that exchanges never interleave on the wire. Not recursive:
// nothing may start an exchange while it is held.
extern QMutex mutex;

// The command link to the printer controller on the serial line: one
// command at a time, with flow control by the controller's count of free
// command-buffer slots, which every answer carries as its first number.
// Every call blocks its caller's thread for as long as the controller takes
// (about six seconds when it is silent, without limit while it reports no
// free slot), so an owner drives it from a thread of its own. One link is
// driven by one thread at a time.
class shutSerialObject : public QObject
{
    Q_OBJECT

public:
    shutSerialObject();
    ~shutSerialObject();

    int serialOpen();
    std::string serialSendBase(std::string code);
    QString serialCheckCode(QString code);
    // 0 with count set to the first run of digits in the answer (a sign in
    // front is not part of it); -1 with count unchanged when there is none.
    static int parseResult(std::string answer, int& count);
    void statusCheck();
    QString serialSendCode(QString code);

private:
    shutSerial* port;
    OutputControl outputControl;
    int bufsizeFlag;
};

#endif // SHUTSERIALOBJECT_H
