#ifndef OUTPUTCONTROL_H
#define OUTPUTCONTROL_H

#include <QChar>
#include <QString>

// Debug switches that can be flipped at run time: one file per key in the
// switch directory, read afresh at every query; a first character '1'
// turns the switch on. Holds no state a query changes, so queries from
// several threads may run at once.
class OutputControl
{
public:
    OutputControl();

    // The first character of the key's file: '0' when the file is missing
    // or cannot be opened, the null character when it holds no text.
    QChar getValue(QString key);
    // The "outSerial" switch: the free-slot trace of the printer link.
    bool isSerialObjOutPut();

private:
    QString debugDir;
};

#endif // OUTPUTCONTROL_H
