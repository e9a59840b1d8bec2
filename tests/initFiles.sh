#!/usr/bin/env bash
# The appliance's start-up files, inside a private mount namespace with
# fresh /run, /tmp, /opt and defaults directory:
#   initFiles.sh UNIT INIT-SCRIPT DAEMON STAND-IN
# the systemd unit passes systemd-analyze verify (with the daemon at the
# path the unit names); the init script, as an init system runs it, against
# the stand-in for the appliance's program: started, queried, started again,
# stopped (the daemon's whole process group gone, the program in it); a
# daemon that died and left the program behind; a daemon that cannot start.
# Each step is shown; the first that fails ends the test.
set -euo pipefail
[ -n "${INIT_SCRIPT_INSIDE:-}" ] || exec unshare --mount --propagation private env INIT_SCRIPT_INSIDE=1 "$0" "$@"
unit=$1 script=$2 daemon=$(readlink -f "$3")
defaults=$(sed -n 's/^DEFAULTS=//p' "$script") installed=$(sed -n 's/^ExecStart=//p' "$unit")
for tree in /run /tmp /opt "$(dirname "$defaults")" "$(dirname "$installed")"; do
    mount -t tmpfs initFiles "$tree"
done
cp "$daemon" "$installed"
verified=$(systemd-analyze verify "$unit" 2>&1) && [ -z "$verified" ] || { echo "FAIL unit: $verified"; exit 1; }
umount "$(dirname "$installed")"
mkdir -p /tmp/mnt/dev/mmcblk0p3 /opt/project
cp "$4" /opt/project/Tolven-ii
log=/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles/shutDown.log
export TOLVEN_SECONDS=600

fail() { echo "FAIL $*"; exit 1; }
expect() { # the init script's status code for an action; its output in $said
    local code=0
    said=$(sh "$script" "$2" 2>&1) || code=$?
    echo "$2 -> $code: $said" | head -3
    [ "$code" -eq "$1" ] || fail "$2: wanted $1"
}
started() { # the daemon's process group in $group, its child in $child
    group=$(cat /run/softShutDown.pid)
    for _ in $(seq 100); do
        child=$(sed -n 's/.*child start as pid:  "\([0-9]*\)".*/\1/p' "$log" 2>/dev/null | tail -1)
        [ -n "$child" ] && return 0
        sleep 0.1
    done
    fail "no child started"
}
gone() { ! kill -0 "$1" 2>/dev/null || fail "$1 still there"; }
defaultsWith() {
    printf 'QT_QPA_PLATFORM=%s\nXDG_RUNTIME_DIR=/run/softShutDown\nDAEMON=%s\n' "$1" "$daemon" >"$defaults"
}

defaultsWith offscreen
expect 3 status
expect 0 start
started
[ "$(ps -o pgid= -p "$child" | tr -d ' ')" = "$group" ] || fail "the program is not in the daemon's group"
expect 0 status
expect 0 start # a second start starts no second daemon
[ "$(cat /run/softShutDown.pid)" = "$group" ] || fail "the second start replaced the pid file"
expect 0 stop
gone "-$group"
expect 3 status

rm -f "$log"
expect 0 start
started
kill -KILL "$group"
while kill -0 "$group" 2>/dev/null; do sleep 0.1; done
expect 1 status
grep -q "lives on" <<<"$said" || fail "status does not say the program lives on"
expect 0 stop
gone "$child"

defaultsWith no-such-platform
expect 1 start
grep -q "no-such-platform" <<<"$said" || fail "start does not show Qt's reason"
expect 3 status
echo "all checks passed"
