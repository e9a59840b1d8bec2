// Stands in for the appliance's program in the benchmarks. The first thing
// it does is tell the driver, through the FIFO named by STAMP_FIFO, its pid
// and the CLOCK_MONOTONIC time at which it started; then it waits to be
// killed, as a long-running program would, so its parent sees no SIGCHLD.

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <unistd.h>

namespace {

const long long nsPerSecond = 1000000000;
// "pid nanoseconds\n" fits with room to spare.
const size_t stampSize = 64;

} // namespace

int main()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);

    const char* fifo = getenv("STAMP_FIFO");
    if (fifo) {
        char stamp[stampSize];
        const int length = snprintf(stamp, sizeof stamp, "%d %lld\n", static_cast<int>(getpid()),
                                    static_cast<long long>(now.tv_sec) * nsPerSecond + now.tv_nsec);
        const int fd = open(fifo, O_WRONLY);
        if (fd >= 0 && write(fd, stamp, static_cast<size_t>(length)) < 0)
            perror("stamp_child: write");
        if (fd >= 0)
            close(fd);
    }
    for (;;)
        pause();
}
