#!/usr/bin/env bash
# The appliance's start-up files, inside a private mount namespace with
# fresh /run, /tmp, /opt and defaults directory:
#   initFiles.sh UNIT INIT-SCRIPT DAEMON STAND-IN
# the systemd unit passes systemd-analyze verify (with the daemon at the path
# the unit names); the init script, as an init system runs it against the
# stand-in for the appliance's program, replays golden/initFiles.txt.
set -euo pipefail
[ -n "${INIT_SCRIPT_INSIDE:-}" ] || exec unshare --mount --propagation private env INIT_SCRIPT_INSIDE=1 "$0" "$@"
unit=$1 script=$2 daemon=$(readlink -f "$3") golden=$(dirname "$0")/golden/initFiles.txt
defaults=$(sed -n 's/^DEFAULTS=//p' "$script") installed=$(sed -n 's/^ExecStart=//p' "$unit")
for tree in /run /tmp /opt "$(dirname "$defaults")" "$(dirname "$installed")"; do
    mount -t tmpfs initFiles "$tree"
done
cp "$daemon" "$installed"
verified=$(systemd-analyze verify "$unit" 2>&1) && [ -z "$verified" ] || { echo "FAIL unit: $verified"; exit 1; }
umount "$(dirname "$installed")"
mkdir -p /tmp/mnt/dev/mmcblk0p3 /opt/project
cp "$4" /opt/project/Tolven-ii
printf 'QT_QPA_PLATFORM=offscreen\nXDG_RUNTIME_DIR=/run/softShutDown\nDAEMON=%s\n' "$daemon" >"$defaults"
log=/tmp/mnt/dev/mmcblk0p3/softShutDownLogFiles/shutDown.log
export TOLVEN_SECONDS=600

work=/tmp
. "$(dirname "$0")/replay.sh"
replay "$golden"
