#ifndef MONITOR_H
#define MONITOR_H

#include <sys/types.h>

// The appliance's main program, run as the supervisor's only child.
extern pid_t g_pid;

// Holds SIGCHLD in the calling thread. Called first in main, while no other
// thread exists: every thread Qt starts later inherits it held, so the
// child's end reaches only the main thread, and only once startFork has its
// handler in place. A thread with SIGCHLD open and no handler yet would
// discard the end of a child that ends at once.
void holdChildSignal();

// Launches the child program and watches for its end. In the parent:
// 0 when the child runs and its end will be logged, -2 when the core-file
// limit cannot be written, -1 on any other failure. A child whose program
// cannot be executed logs why and ends with status 127; it never returns.
int startFork();

#endif // MONITOR_H
