#!/usr/bin/env bash
# The appliance's start-up files, inside a private mount namespace with
# fresh /run, /tmp, /opt and defaults directory:
#   initFiles.sh UNIT INIT-SCRIPT DAEMON STAND-IN
# the systemd unit passes systemd-analyze verify (with the daemon at the
# path the unit names); the init script, as an init system runs it, against
# the stand-in for the appliance's program: started, queried, started again,
# stopped (both processes gone); a daemon that died and left the program
# behind; a daemon that cannot start.
set -euo pipefail
if [ -z "${INIT_SCRIPT_INSIDE:-}" ]; then
    exec unshare --mount --propagation private env INIT_SCRIPT_INSIDE=1 "$0" "$@"
fi
unit=$1 script=$2 daemon=$(readlink -f "$3") standIn=$4

defaults=$(sed -n 's/^DEFAULTS=//p' "$script")
pidfile=$(sed -n 's/^PIDFILE=//p' "$script" | sed 's/\$NAME/softShutDown/')
for tree in /run /tmp /opt "$(dirname "$defaults")"; do
    mount -t tmpfs initScript "$tree"
done
mkdir -p /tmp/mnt/dev/mmcblk0p3 /opt/project
cp "$standIn" /opt/project/Tolven-ii
log=/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles/shutDown.log
export TOLVEN_SECONDS=600

failures=0
check() { # description, then the command that must succeed
    local what=$1
    shift
    if "$@"; then echo "ok    $what"; else echo "FAIL  $what"; failures=$((failures + 1)); fi
}
defaultsWith() {
    printf 'QT_QPA_PLATFORM=%s\nXDG_RUNTIME_DIR=/run/softShutDown\nDAEMON=%s\n' "$1" "$daemon" >"$defaults"
}
run() { # the init script's status code for an action; its output in $said
    local code=0
    said=$(sh "$script" "$1" 2>&1) || code=$?
    echo "      $1: $said" | head -3
    return "$code"
}
statusIs() { local code=0; run status || code=$?; [ "$code" -eq "$1" ]; }
childPid() {
    for _ in $(seq 100); do
        child=$(sed -n 's/.*child start as pid:  "\([0-9]*\)".*/\1/p' "$log" 2>/dev/null | tail -1)
        [ -n "$child" ] && return 0
        sleep 0.1
    done
    return 1
}
alive() { kill -0 "$1" 2>/dev/null; }
gone() { ! kill -0 "$1" 2>/dev/null; }

verifyUnit() {
    local installed
    installed=$(sed -n 's/^ExecStart=//p' "$unit")
    mount -t tmpfs initFiles "$(dirname "$installed")"
    cp "$daemon" "$installed"
    said=$(systemd-analyze verify "$unit" 2>&1)
    local code=$?
    umount "$(dirname "$installed")"
    [ -n "$said" ] && echo "$said"
    [ "$code" -eq 0 ] && [ -z "$said" ]
}
check "the unit passes systemd-analyze verify, without a remark" verifyUnit

defaultsWith offscreen
check "status before start says not running (3)" statusIs 3
check "start" run start
group=$(cat "$pidfile")
check "status says running (0)" statusIs 0
check "the daemon started the appliance's program" childPid
check "the program runs in the daemon's process group" \
    test "$(ps -o pgid= -p "$child" | tr -d ' ')" = "$group"
check "a second start starts no second daemon" run start
check "... and keeps the pid file" test "$(cat "$pidfile")" = "$group"
check "stop" run stop
check "the daemon is gone" gone "$group"
check "the appliance's program is gone" gone "$child"
check "no process of the group is left" gone "-$group"
check "status after stop says not running (3)" statusIs 3

rm -f "$log"
check "start again" run start
group=$(cat "$pidfile")
check "the daemon started the appliance's program" childPid
kill -KILL "$group"
while alive "$group"; do sleep 0.1; done
check "a killed daemon: status says dead (1)" statusIs 1
check "... and that its program lives on" grep -q "lives on" <<<"$said"
check "stop ends the program left behind" run stop
check "the appliance's program is gone" gone "$child"

defaultsWith no-such-platform
code=0
run start || code=$?
check "without a platform plugin: start fails (1)" test "$code" -eq 1
check "... and shows Qt's reason" grep -q "no-such-platform" <<<"$said"
check "... and leaves nothing running" statusIs 3

[ "$failures" -eq 0 ] || { echo "$failures checks failed"; exit 1; }
echo "all checks passed"
