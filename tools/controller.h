#ifndef CONTROLLER_H
#define CONTROLLER_H

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QStringList>

#include <atomic>
#include <thread>

// A simulated printer controller on the master side of a pseudo-terminal,
// for the tests of the serial port and the command link and for
// tools/sim-printer. Used inside a private mount namespace only.
namespace controller {

// Bytes as text and back, as the controller's options and the tests' transcripts
// write them: \r, \n, \t, \\, \xHH, and X\{N} for N bytes X in a row (16 or more).
QByteArray escaped(const QByteArray& bytes);
QByteArray unescaped(const QByteArray& text);

// One answer to one command: the chunks are written one after another,
// each after pauseMs. A reply without chunks leaves the command unanswered.
struct Reply {
    QList<QByteArray> chunks;
    int pauseMs = 0;
};

class Controller
{
public:
    // A fresh pseudo-terminal; when bindPath is given, its slave is bound
    // there for the life of the controller. Nothing answers until start().
    explicit Controller(const char* bindPath = nullptr);
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    const char* slave() const { return slavePath.constData(); }
    void write(const QByteArray& bytes);
    // Stops answering and closes the master side.
    void hangUp();

    // Answers every framed command on a thread of its own from now on: the
    // reply for that exchange (1: the first command), else the next queued
    // one, else "ok <free slots>\r\n" (nothing while the count is below 0),
    // where "M117" reports 0 while zero polls are left, else, once echoing,
    // "ok 5 <command>" after the pause, noting any command that comes in
    // while an answer is still due.
    void start();
    void queue(const Reply& reply);
    void answerAt(int exchange, const Reply& reply);
    void setFreeSlots(int count);
    void zeroPolls(int polls);
    void echoAfter(int pauseMs);

    QStringList commands();
    QList<qint64> arrivalsMs();
    bool overlapped();
    // Every byte received, once the line has fallen silent: every port on
    // it closed (or at most three seconds).
    QByteArray wire();

private:
    void serve();
    Reply replyTo(const QByteArray& command);

    int master;
    QByteArray slavePath;
    QByteArray boundAt;
    int stopPipe[2];
    std::thread worker;
    std::atomic<bool> served{false};

    QMutex lock;
    QList<Reply> replies;
    QMap<int, Reply> numbered;
    int freeSlots = 7;
    int zeroPollsLeft = 0;
    int echoPauseMs = -1;
    bool overlap = false;
    QStringList received;
    QList<qint64> arrivals;
    QByteArray wireBytes;
};

} // namespace controller

#endif // CONTROLLER_H
