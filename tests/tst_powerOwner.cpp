// The owner example's wiring: the watcher runs on a thread of its own and
// both of its signals reach the owner on the main thread.
#include "powerOwner.h"
#include "sandbox.h"

#include <QApplication>
#include <QMutex>
#include <QThread>
#include <QtTest>

namespace {

QMutex messagesLock;
QStringList onMainThread;
QStringList onOtherThreads;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& msg)
{
    QMutexLocker locker(&messagesLock);
    (QThread::currentThread() == qApp->thread() ? onMainThread : onOtherThreads) << msg;
}

bool logged(const QStringList& messages, const QString& msg)
{
    QMutexLocker locker(&messagesLock);
    return messages.contains(msg);
}

bool isOpen(const QString& path)
{
    for (const QString& fd : QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
        if (QFile::symLinkTarget("/proc/self/fd/" + fd) == path)
            return true;
    }
    return false;
}

} // namespace

class tst_powerOwner : public QObject
{
    Q_OBJECT

private:
    PowerOwner owner;

private slots:
    void bothSignalsReachTheOwnerOnTheMainThread()
    {
        QVERIFY(sandbox::makeSignalLine());
        QVERIFY(sandbox::mountGpioTree());
        QDir().mkpath("/sys/class/gpio/gpio55");
        QDir().mkpath("/sys/class/gpio/gpio100");
        sandbox::writeFile("/sys/class/gpio/gpio55/direction", "");
        QVERIFY(QFile::link(sandbox::signalFile, "/sys/class/gpio/gpio55/value"));
        sandbox::writeFile("/sys/class/gpio/gpio100/direction", "");
        sandbox::writeFile("/sys/class/gpio/gpio100/value", "");
        sandbox::writeFile("/tmp/mounts", "");
        QVERIFY(sandbox::bindMountTable("/tmp/mounts"));
        qInstallMessageHandler(keepMessage);

        owner.startWatching();
        QTRY_VERIFY(isOpen(sandbox::signalFile));
        QVERIFY(sandbox::setSignalLevel("0"));
        QTRY_VERIFY(logged(onMainThread, "owner powerLost  power is going, stop the print"));
        QVERIFY(sandbox::setSignalLevel("1"));
        QTRY_VERIFY(logged(onMainThread, "owner powerBack  power is back"));

        // The watcher itself works on its own thread, and without an edge
        // file it still waits on whatever edge the line has.
        QVERIFY(logged(onOtherThreads, "shutMyGpio run  receive poweroff signal"));
        QVERIFY(logged(onOtherThreads, "set edge failed:  File exists"));
        qInstallMessageHandler(nullptr);
    }
};

SANDBOXED_TEST_MAIN(tst_powerOwner)
#include "tst_powerOwner.moc"
