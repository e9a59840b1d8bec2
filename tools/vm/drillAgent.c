/* The guest's side of the power-loss drill (tools/vm/drill): it takes the
 * host's orders from the serial line /dev/ttyS1 and answers on standard
 * output, which the machine's init points at the same line.
 *
 *   start MS         sets the clock to MS (UTC milliseconds), mounts the card
 *                    and starts the appliance in a session of its own, as an
 *                    init system starts programs
 *   edge DELAY_US    drives line 55 low, then after DELAY_US cuts the power:
 *                    the machine stops at once (its panic device), so nothing
 *                    the guest does after that instant reaches the card
 *
 * Reports, one line each, times in CLOCK_MONOTONIC microseconds:
 *   agent ready | agent started PID | agent edge US REALTIME_MS |
 *   agent cut US | agent finished STATUS (after a sync)
 * Built static on the host; the machine has busybox and nothing else. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <linux/fs.h>

static const char channelPath[] = "/dev/ttyS1";
static const char cardDevice[] = "/dev/mmcblk0p3";
static const char cardDir[] = "/tmp/mnt/dev/mmcblk0p3";
static const char powerPull[] = "/sys/kernel/debug/gpio-mockup/gpiochip0/55";
static const char appliance[] = "/vm/appliance";
static const char job[] = "/vm/job.gcode";
/* QEMU's ISA panic device; writing 1 reports a panic, and the machine is
 * started with the panic action "pause". */
static const unsigned short panicPort = 0x505;

static long long nowUs(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return (long long)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

static void report(const char* format, ...) __attribute__((format(printf, 1, 2)));
static void report(const char* format, ...)
{
    char line[256];
    va_list items;
    va_start(items, format);
    vsnprintf(line, sizeof line, format, items);
    va_end(items);
    /* One write per line: the appliance writes to the same line. */
    if (write(STDOUT_FILENO, line, strlen(line)) < 0)
        exit(3);
}

static int setPull(const char* level)
{
    const int fd = open(powerPull, O_WRONLY);
    if (fd < 0)
        return -1;
    const int written = write(fd, level, 1) == 1 ? 0 : -1;
    close(fd);
    return written;
}

static int start(long long realtimeMs)
{
    const struct timespec clock = {realtimeMs / 1000, (realtimeMs % 1000) * 1000000};
    if (clock_settime(CLOCK_REALTIME, &clock) < 0)
        return -1;
    /* The machine was saved with another card in the slot: what the kernel
     * read of that one must not be taken for this one. */
    const int card = open(cardDevice, O_RDONLY);
    if (card < 0 || ioctl(card, BLKFLSBUF, 0) < 0)
        return -1;
    close(card);
    if (mount(cardDevice, cardDir, "vfat", 0, "") < 0)
        return -1;
    const pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, NULL);
        setsid();
        setenv("LANG", "C.UTF-8", 1);
        execl(appliance, appliance, job, (char*)NULL);
        _exit(127);
    }
    report("agent started %d\n", (int)pid);
    return 0;
}

static void sleepUntil(long long monotonicUs)
{
    const struct timespec until = {monotonicUs / 1000000, (monotonicUs % 1000000) * 1000};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, NULL) == EINTR) {
    }
}

static int edge(long long delayUs)
{
    const long long edgeUs = nowUs(CLOCK_MONOTONIC);
    const long long edgeMs = nowUs(CLOCK_REALTIME) / 1000;
    if (setPull("0") < 0)
        return -1;
    report("agent edge %lld %lld\n", edgeUs, edgeMs);
    sleepUntil(edgeUs + delayUs);
    report("agent cut %lld\n", nowUs(CLOCK_MONOTONIC));
    outb(1, panicPort);
    return 0;
}

static int obey(char* order)
{
    long long value;
    if (sscanf(order, "start %lld", &value) == 1)
        return start(value);
    if (sscanf(order, "edge %lld", &value) == 1)
        return edge(value);
    return -1;
}

int main(void)
{
    const int channel = open(channelPath, O_RDONLY | O_NOCTTY);
    if (channel < 0 || ioperm(panicPort, 1, 1) < 0 || setPull("1") < 0) {
        report("agent failed to set up: %s\n", strerror(errno));
        return 1;
    }
    sigset_t childEnds;
    sigemptyset(&childEnds);
    sigaddset(&childEnds, SIGCHLD);
    sigprocmask(SIG_BLOCK, &childEnds, NULL);
    const int ended = signalfd(-1, &childEnds, SFD_CLOEXEC);
    report("agent ready\n");

    char order[128];
    size_t filled = 0;
    for (;;) {
        struct pollfd waits[2] = {{channel, POLLIN, 0}, {ended, POLLIN, 0}};
        if (poll(waits, 2, -1) < 0)
            continue;
        if (waits[1].revents) {
            struct signalfd_siginfo info;
            if (read(ended, &info, sizeof info) < 0)
                continue;
            int status;
            while (waitpid(-1, &status, WNOHANG) > 0) {
                sync();
                report("agent finished %d\n", status);
            }
        }
        if (!waits[0].revents)
            continue;
        const ssize_t got = read(channel, order + filled, sizeof order - 1 - filled);
        if (got <= 0)
            continue;
        filled += (size_t)got;
        order[filled] = '\0';
        char* end;
        while ((end = strchr(order, '\n')) != NULL) {
            *end = '\0';
            if (obey(order) < 0)
                report("agent failed: %s: %s\n", order, strerror(errno));
            filled -= (size_t)(end + 1 - order);
            memmove(order, end + 1, filled + 1);
        }
        if (filled == sizeof order - 1)
            filled = 0;
    }
}
