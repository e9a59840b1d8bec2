#include "powerOwner.h"

#include "shutMyGpio.h"

#include <QDebug>
#include <QThread>

void PowerOwner::startWatching()
{
    QThread* watchThread = new QThread;
    shutMyGpio* watcher = new shutMyGpio;
    watcher->moveToThread(watchThread);
    connect(watchThread, &QThread::started, watcher, &shutMyGpio::run);
    // The power is going: what must stop, stops now, not when the main
    // thread's event loop next looks (it may be busy for seconds, with a
    // printer command for instance, and the supply holds only so long).
    connect(watcher, &shutMyGpio::sig_shutDown, this, &PowerOwner::powerLost, Qt::DirectConnection);
    connect(watcher, &shutMyGpio::sig_pollOn, this, &PowerOwner::powerBack);
    watchThread->start();
}

// The file systems are flushed by the time this runs, on the watcher's
// thread; what is left is to stop starting work that needs power.
void PowerOwner::powerLost()
{
    qDebug() << "owner" << "powerLost" << " power is going, stop the print";
}

void PowerOwner::powerBack()
{
    qDebug() << "owner" << "powerBack" << " power is back";
}
