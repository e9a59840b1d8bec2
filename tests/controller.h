#ifndef CONTROLLER_H
#define CONTROLLER_H

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QMutex>
#include <QStringList>

#include <atomic>
#include <thread>

#include <pthread.h>
#include <sys/types.h>
#include <unistd.h>

// A simulated printer controller on the master side of a pseudo-terminal,
// for the serial port and the command link, and what their tests need
// around it. Used inside the test sandbox only.
namespace controller {

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

    // Direct access for the port's tests, before start().
    void write(const QByteArray& bytes);
    QByteArray readWire(int quietMs);
    void hangUp();

    // Answers every framed command on a thread of its own from now on: the
    // next queued reply, or else "ok <free slots>\r\n", where "M117" reports
    // 0 while zero polls are left.
    void start();
    void queue(const Reply& reply);
    void queue(const QByteArray& answer);
    // The reply to the exchange of that number (1: the first command that
    // arrives), before any queued one.
    void answerAt(int exchange, const Reply& reply);
    void setFreeSlots(int count);
    void zeroPolls(int polls);
    // Answers "ok 5 <command>" after pauseMs, noting any command that comes
    // in while an answer is still due.
    void echoAfter(int pauseMs);

    QStringList commands();
    QList<qint64> arrivalsMs();
    bool overlapped();

private:
    void serve();
    void answer(const QByteArray& command);
    Reply replyTo(const QByteArray& command);

    int master;
    QByteArray slavePath;
    QByteArray boundAt;
    int stopPipe[2];
    std::thread worker;

    QMutex lock;
    QList<Reply> replies;
    QMap<int, Reply> numbered;
    int freeSlots = 7;
    int zeroPollsLeft = 0;
    int echoPauseMs = -1;
    bool overlap = false;
    QStringList received;
    QList<qint64> arrivals;
};

// A thread that records its kernel thread id, so that a test can wait until
// it blocks in read(2) and interrupt it there.
class Runner
{
public:
    template <typename Work>
    explicit Runner(Work work)
        : thread([this, work] {
            tid = gettid();
            work();
            done = true;
        })
    {
    }
    ~Runner() { thread.join(); }

    // Sends SIGCHLD, whose handler is installed without SA_RESTART as the
    // daemon's is, once the thread waits in read(2): the read fails with EINTR.
    bool interruptRead();
    bool waitDone(int timeoutMs);

private:
    std::atomic<pid_t> tid{0};
    std::atomic<bool> done{false};
    std::thread thread;
};

} // namespace controller

#endif // CONTROLLER_H
