// How fast the watcher reacts to a loss of power on a real kernel: from the
// moment line 55 is driven low to sig_shutDown, over many edges, with the
// preparation's own work reported apart: the watcher's sync as the kernel's
// syscall trace events time it, and the sync and the mount table together
// as the watcher's messages time them.
// Runs inside the test machine (tools/vm/bench [edges]); the machine is
// emulated without KVM, so the times are the emulator's, not the appliance's.
#include "kernelGpio.h"

#include <QCoreApplication>
#include <QDir>
#include <QRegExp>
#include <QSemaphore>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <sys/mount.h>
#include <unistd.h>

using namespace kernelGpio;

namespace {

const unsigned int powerLine = 55;
const char wakeMessage[] = "shutMyGpio run val =  \"0\"";
const char lossMessage[] = "shutMyGpio run  receive poweroff signal";
const char firstPartition[] = "umount  \"/dev/mmcblk0p3\"  from  \"/tmp/mnt/dev/mmcblk0p3\"";

bool mountAs(const char* device, const char* dir)
{
    return QDir().mkpath(dir) && mount(device, dir, "tmpfs", 0, nullptr) == 0;
}

const QString tracing = "/sys/kernel/debug/tracing/";

bool writeTo(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Unbuffered) && file.write(text) == text.size();
}

// Records the entries to and returns from sync of one thread, on the
// monotonic clock that nowNs reads.
bool traceSyncOf(pid_t tid)
{
    bool done = writeTo(tracing + "trace_clock", "mono") && writeTo(tracing + "trace", "");
    for (const char* event : {"sys_enter_sync", "sys_exit_sync"}) {
        const QString dir = tracing + "events/syscalls/" + event + "/";
        done = done && writeTo(dir + "filter", "common_pid == " + QByteArray::number(tid)) &&
               writeTo(dir + "enable", "1");
    }
    return done;
}

// The traced syncs' durations, in their order, in nanoseconds. The trace
// gives microseconds.
std::vector<qint64> tracedSyncs()
{
    for (const char* event : {"sys_enter_sync", "sys_exit_sync"})
        writeTo(tracing + "events/syscalls/" + event + "/enable", "0");
    const QRegExp record(" (\\d+)\\.(\\d{6}): (sys_sync\\(\\)|sys_sync -> )");
    std::vector<qint64> durations;
    qint64 entered = -1;
    for (const QString& line : QString::fromUtf8(readFile(tracing + "trace")).split('\n')) {
        if (record.indexIn(line) < 0)
            continue;
        const qint64 at = record.cap(1).toLongLong() * 1000000000 + record.cap(2).toLongLong() * 1000;
        if (record.cap(3) == "sys_sync()")
            entered = at;
        else if (entered >= 0) {
            durations.push_back(at - entered);
            entered = -1;
        }
    }
    return durations;
}

void waitUntil(const std::function<bool()>& ready)
{
    while (!ready())
        usleep(1000);
}

// Median, spread between the 10th and 90th percentiles, and the extremes,
// in microseconds.
void report(const char* what, std::vector<qint64> ns)
{
    // Which edge was the slowest: the first one pays for cold caches.
    const long slowest = std::max_element(ns.begin(), ns.end()) - ns.begin();
    std::sort(ns.begin(), ns.end());
    const auto at = [&ns](double share) { return ns[size_t(share * (ns.size() - 1))] / 1000.0; };
    printf("%-34s median %9.1f   p10 %9.1f   p90 %9.1f   min %9.1f   max %9.1f (edge %ld)\n", what, at(0.5),
           at(0.1), at(0.9), at(0.0), at(1.0), slowest);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int edges = argc > 1 ? atoi(argv[1]) : 500;
    if (edges < 1 || !QFile::exists("/sys/kernel/debug/gpio-mockup/gpiochip0")) {
        fprintf(stderr, "usage (in the test machine): %s [edges]\n", argv[0]);
        return 2;
    }
    // The partitions the preparation lists on the appliance, so that it
    // does its whole work.
    if (!mountAs("/dev/mmcblk0p3", "/tmp/mnt/dev/mmcblk0p3") || !mountAs("/dev/sda1", "/media/usb")) {
        perror("mount");
        return 1;
    }
    keepMessages();
    setInput(powerLine, true);
    RunningWatcher* running = new RunningWatcher; // never destroyed: run never returns
    QSemaphore shutDown;
    running->atShutDown([&shutDown] { shutDown.release(); });
    running->start();
    waitUntil([] { return timeOf("shutMyGpio run val =  \"1\"") >= 0; });

    std::vector<qint64> toWake, toShutDown, preparation, withoutPreparation, bareSync;
    // One loss of power; false when the watcher's messages are missing.
    const auto edge = [&] {
        // The power back (no wake: edge "falling"), the watcher waiting.
        setInput(powerLine, true);
        waitUntil([running] { return waitsInPoll(running->tid()); });
        takeMessages();
        const qint64 driven = nowNs();
        setInput(powerLine, false);
        shutDown.acquire();
        const qint64 woken = timeOf(wakeMessage);
        const qint64 lost = timeOf(lossMessage);
        const qint64 listed = timeOf(firstPartition);
        if (woken < 0 || lost < 0 || listed < 0)
            return false;
        const qint64 total = running->lastShutDownNs() - driven;
        toWake.push_back(woken - driven);
        toShutDown.push_back(total);
        preparation.push_back(listed - lost);
        withoutPreparation.push_back(total - (listed - lost));
        // The flush alone, with as little to write as the watcher had.
        const qint64 before = nowNs();
        sync();
        bareSync.push_back(nowNs() - before);
        return true;
    };
    for (int i = 0; i < edges; ++i)
        if (!edge()) {
            fprintf(stderr, "edge %d: the watcher's messages are missing\n", i);
            return 1;
        }
    const std::vector<qint64> measured[] = {toWake, toShutDown, preparation, withoutPreparation, bareSync};
    // The watcher's own syncs in a second round of as many edges: the trace
    // events slow every system call down, so the first round runs without.
    if (!traceSyncOf(running->tid())) {
        fprintf(stderr, "the syscall trace events cannot be set\n");
        return 1;
    }
    for (int i = 0; i < edges; ++i)
        if (!edge()) {
            fprintf(stderr, "traced edge %d: the watcher's messages are missing\n", i);
            return 1;
        }
    if (running->shutDowns() != 2 * edges) {
        fprintf(stderr, "%d edges gave %d sig_shutDown\n", 2 * edges, running->shutDowns());
        return 1;
    }
    const std::vector<qint64> watcherSyncs = tracedSyncs();
    if (watcherSyncs.size() != size_t(edges)) {
        fprintf(stderr, "%d edges, %zu syncs traced\n", edges, watcherSyncs.size());
        return 1;
    }
    printf("Reaction to a loss of power, %d falling edges on line 55, in microseconds\n", edges);
    printf("(emulated machine, TCG, one processor: not the appliance's times)\n");
    report("line driven low -> watcher awake", measured[0]);
    report("line driven low -> sig_shutDown", measured[1]);
    report("  of which sync + mount table", measured[2]);
    report("  the rest", measured[3]);
    report("the watcher's sync (traced round)", watcherSyncs);
    report("a bare sync(), for comparison", measured[4]);
    return 0;
}
