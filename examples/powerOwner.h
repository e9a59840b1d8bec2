#ifndef POWEROWNER_H
#define POWEROWNER_H

#include <QObject>

// An owner of the power-signal watcher. The watcher's run never returns, so
// it gets a thread of its own. A loss of power is handled on that thread,
// the moment the file systems are flushed; the return of power comes back
// to the owner's thread through Qt's queued delivery.
class PowerOwner : public QObject
{
    Q_OBJECT

public:
    // Starts the watcher on a new thread. The watcher and its thread are
    // never destroyed: run uses them until the process ends.
    void startWatching();

public slots:
    // Runs on the watcher's thread: it may use only what is safe from any
    // thread (here Qt's messages), never the main thread's objects unlocked.
    void powerLost();
    void powerBack();
};

#endif // POWEROWNER_H
