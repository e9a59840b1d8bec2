#include "OutputControl.h"

#include <QFile>

namespace {

const char switchDirectory[] = "/opt/var/debug";
const char serialTraceKey[] = "outSerial";

} // namespace

OutputControl::OutputControl()
    : debugDir(QString::fromLatin1(switchDirectory))
{
}

QChar OutputControl::getValue(QString key)
{
    QFile file(debugDir + QLatin1Char('/') + key);
    if (!file.exists() || !file.open(QIODevice::ReadOnly))
        return QLatin1Char('0');
    // The text ends at the first zero byte: a file that starts with one
    // holds no switch value at all.
    const QString text = QString::fromUtf8(file.readAll().constData());
    return text.isEmpty() ? QChar() : text.at(0);
}

bool OutputControl::isSerialObjOutPut()
{
    return getValue(QString::fromLatin1(serialTraceKey)) == QLatin1Char('1');
}
