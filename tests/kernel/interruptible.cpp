// Loaded into the power owner example (LD_PRELOAD): a handler for SIGUSR1
// installed without SA_RESTART, as a program's own handler may be, so that
// the signal cuts the watcher's wait short.
#include <csignal>

__attribute__((constructor)) static void installHandler()
{
    struct sigaction noRestart = {};
    noRestart.sa_handler = [](int) {};
    sigaction(SIGUSR1, &noRestart, nullptr);
}
