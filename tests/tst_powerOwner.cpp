// The owner example's wiring: the watcher runs on a thread of its own; the
// owner handles a loss there, at once, and a return on the main thread.
#include "powerOwner.h"
#include "sandbox.h"

#include <QApplication>
#include <QtTest>

namespace {

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
    void aLossIsHandledOnTheWatchersThreadAReturnOnTheMainThread()
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
        sandbox::MessageLog log;

        owner.startWatching();
        QTRY_VERIFY(isOpen(sandbox::signalFile));
        QVERIFY(sandbox::setSignalLevel("0"));
        QTRY_VERIFY(log.onOtherThreads().contains("owner powerLost  power is going, stop the print"));
        QVERIFY(sandbox::setSignalLevel("1"));
        QTRY_VERIFY(log.onMainThread().contains("owner powerBack  power is back"));

        // The watcher itself works on its own thread, and without an edge
        // file it still waits on whatever edge the line has.
        QVERIFY(log.onOtherThreads().contains("shutMyGpio run  receive poweroff signal"));
        QVERIFY(log.onOtherThreads().contains("set edge failed:  File exists"));
    }
};

SANDBOXED_TEST_MAIN(tst_powerOwner)
#include "tst_powerOwner.moc"
