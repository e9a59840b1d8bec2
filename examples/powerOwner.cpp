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
    connect(watcher, &shutMyGpio::sig_shutDown, this, &PowerOwner::powerLost);
    connect(watcher, &shutMyGpio::sig_pollOn, this, &PowerOwner::powerBack);
    watchThread->start();
}

// The file systems are flushed by the time this runs; what is left is to
// stop starting work that needs power.
void PowerOwner::powerLost()
{
    qDebug() << "owner" << "powerLost" << " power is going, stop the print";
}

void PowerOwner::powerBack()
{
    qDebug() << "owner" << "powerBack" << " power is back";
}
