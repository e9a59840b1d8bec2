#ifndef POWEROWNER_H
#define POWEROWNER_H

#include <QObject>

// An owner of the power-signal watcher. The watcher's run never returns, so
// it gets a thread of its own; its signals come back to the owner's thread
// through Qt's queued delivery, where the owner reacts to them.
class PowerOwner : public QObject
{
    Q_OBJECT

public:
    // Starts the watcher on a new thread. The watcher and its thread are
    // never destroyed: run uses them until the process ends.
    void startWatching();

public slots:
    void powerLost();
    void powerBack();
};

#endif // POWEROWNER_H
