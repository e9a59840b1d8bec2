#!/usr/bin/awk -f
# The stand-in for the appliance's program that records how it was started,
# as the kernel reports it for this process: working directory, core-file
# limits and blocked signals, each in a file under /tmp; then it waits for
# /tmp/go. A script, so that a daemon run under user-mode emulation can start
# it too; awk, not sh: the shell clears the blocked-signal mask it was started with.
BEGIN {
    system("pwd -P >/tmp/child-cwd")
    while ((getline line < "/proc/self/limits") > 0) {
        if (line ~ /^Max core file size/) {
            split(line, field)
            print field[5], field[6] > "/tmp/child-core"
        }
    }
    close("/tmp/child-core")
    while ((getline line < "/proc/self/status") > 0) {
        if (line ~ /^SigBlk:/)
            print line > "/tmp/child-mask"
    }
    close("/tmp/child-mask")
    system("while [ ! -e /tmp/go ]; do sleep 0.02; done")
}
