// An owner of the printer command link. Every call of the link blocks its
// caller while the controller answers (seconds when it is silent, as long
// as it reports no free slot), so the link is created and driven on a
// thread of its own, one command after the other; the main thread keeps its
// event loop free and hears of each answer through a queued signal.
#include "shutSerialObject.h"

#include <QCoreApplication>
#include <QDebug>
#include <QScopedPointer>
#include <QStringList>
#include <QThread>

namespace {

const char failedCommand[] = "Send failed for parseResult.";
// Commands failing one after another mean a silent or hung-up controller,
// or a receive buffer that filled up without a line end: no exchange ever
// clears that, only a new link (a new port with an empty buffer) does.
const int failuresBeforeNewLink = 3;

} // namespace

class PrinterThread : public QThread
{
    Q_OBJECT

public:
    explicit PrinterThread(const QStringList& commands)
        : commands(commands)
    {
    }

signals:
    void answered(const QString& command, const QString& answer);

protected:
    void run() override
    {
        QScopedPointer<shutSerialObject> link(new shutSerialObject);
        int failuresInRow = 0;
        for (const QString& command : commands) {
            const QString answer = link->serialSendCode(command);
            emit answered(command, answer);
            failuresInRow = answer == QLatin1String(failedCommand) ? failuresInRow + 1 : 0;
            if (failuresInRow == failuresBeforeNewLink) {
                link.reset();
                link.reset(new shutSerialObject);
                failuresInRow = 0;
            }
        }
    }

private:
    const QStringList commands;
};

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    PrinterThread printer(QStringList() << "G28" << "G1 X10 Y10 F3000" << "M104 S200" << "M105");
    QObject::connect(&printer, &PrinterThread::answered, &app,
                     [](const QString& command, const QString& answer) {
                         qDebug() << "printerOwner" << command << answer;
                     });
    QObject::connect(&printer, &QThread::finished, &app, &QCoreApplication::quit);
    printer.start();
    return app.exec();
}

#include "printerOwner.moc"
