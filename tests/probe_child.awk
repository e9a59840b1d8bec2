#!/usr/bin/awk -f
# The stand-in for the appliance's program that writes how it was started
# (working directory, core-file limits, blocked signals) to files under /tmp,
# then waits for /tmp/go. A script, so that a daemon under user-mode emulation
# starts it too; awk, since sh clears the blocked-signal mask it was started with.
BEGIN {
    system("pwd -P >/tmp/child-cwd")
    while ((getline line < "/proc/self/limits") > 0)
        if (split(line, field) && line ~ /^Max core file size/)
            print field[5], field[6] > "/tmp/child-core"
    while ((getline line < "/proc/self/status") > 0)
        if (line ~ /^SigBlk:/)
            print line > "/tmp/child-mask"
    close("/tmp/child-core")
    close("/tmp/child-mask")
    system("while [ ! -e /tmp/go ]; do sleep 0.02; done")
}
