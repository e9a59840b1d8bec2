#ifndef KERNELGPIO_H
#define KERNELGPIO_H

// What the tests and the benchmark that run inside the test machine share:
// the simulated chip's input levels, the kernel's view of a line, the
// watcher on a thread of its own and the messages it raises. Made for the
// machine of tools/vm/run, where gpio-mockup gives one chip at base 0, so
// every line keeps its global number.
#include "shutMyGpio.h"

#include <QByteArray>
#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <functional>

#include <sys/types.h>

namespace kernelGpio {

// The whole file, or an empty array when it does not read.
QByteArray readFile(const QString& path);

// Sets the level the simulated chip gives an input line, through its
// debugfs file; a change the line's edge setting asks for raises its
// interrupt.
bool setInput(unsigned int line, bool high);

// Whether the thread sleeps in poll, as /proc shows it.
bool waitsInPoll(pid_t tid);

// CLOCK_MONOTONIC in nanoseconds.
qint64 nowNs();

// A descriptor of the test's own on a line's value file. The kernel marks
// every open value file at an edge, so this one tells the test whether an
// edge was delivered, without asking the watcher.
class EdgeProbe
{
public:
    explicit EdgeProbe(unsigned int line);
    ~EdgeProbe();
    // Reads the file, which clears the mark.
    bool arm();
    // Whether an edge marks the file within the time.
    bool edgeWithin(int milliseconds);

private:
    int fd;
};

// Every message of the process, with its time; installed once.
void keepMessages();
QStringList takeMessages();
// The time of the first kept message equal to text, or -1.
qint64 timeOf(const QString& text);
// How many kept messages equal text.
int countOf(const QString& text);

// A watcher whose run has a thread of its own, as its owner gives it. Its
// signals are counted on that thread, and the hooks, when set, run there
// too, before run goes back to its wait: what a hook does to the lines
// happens while the watcher is surely not waiting.
class RunningWatcher
{
public:
    RunningWatcher();
    // Starts run; returns once the thread is known.
    void start();

    pid_t tid() const { return threadId; }
    int shutDowns() const { return shutDownCount; }
    int pollOns() const { return pollOnCount; }
    // The time of the last sig_shutDown.
    qint64 lastShutDownNs() const { return lastShutDown; }
    void atShutDown(std::function<void()> hook);
    void atPollOn(std::function<void()> hook);

private:
    void runHook(const std::function<void()>& hook);

    QThread thread;
    shutMyGpio* watcher; // never destroyed: run never returns
    std::atomic<pid_t> threadId{0};
    std::atomic<int> shutDownCount{0};
    std::atomic<int> pollOnCount{0};
    std::atomic<qint64> lastShutDown{0};
    QMutex hookLock;
    std::function<void()> shutDownHook;
    std::function<void()> pollOnHook;
};

} // namespace kernelGpio

#endif // KERNELGPIO_H
