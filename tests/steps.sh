# The shell of a transcript's "> sh" steps reads this first: bash, or
# busybox sh in the test machine.
set -o pipefail
card=/tmp/mnt/dev/mmcblk0p3
log=$card/softShutDownLogFiles/shutDown.log
# Whatever the transcript started ends with it; a program still waiting goes.
trap 'pkill -KILL -P $$; touch /tmp/go' EXIT
mkdir -p $card && cd $card

# Until the command succeeds, for at most ten seconds.
within() {
    for _ in $(seq 1000); do eval "$1" && return; sleep 0.01; done
    echo "still not: $1"; return 1
}
# Until the file (the live log unless named) has N lines.
await() { within "[ \$(cat ${2:-$log} 2>/dev/null | wc -l) -ge $1 ]"; }
# The files of a log's folder by name, each line behind its file's name.
files() {
    for f in /tmp/log/*; do
        if [ -d "$f" ]; then echo "${f##*/}/"; elif [ -s "$f" ]; then sed "s|^|${f##*/}: |" "$f"; else echo "${f##*/}: (empty)"; fi
    done
}
n() { sed 's/[0-9]\+/N/g'; }
# A file with exactly the bytes given (printf's escapes), or a link to
# /dev/full, which no write fits; an exported line's files.
put() { mkdir -p "${1%/*}" && rm -rf "$1" && printf "${2:-}" >"$1"; }
full() { mkdir -p "${1%/*}" && rm -rf "$1" && ln -s /dev/full "$1"; }
exported() { for file in direction value edge; do put /sys/class/gpio/gpio$1/$file; done; }
attrs() { stty -F /dev/ttyO1 -g; }
# The watcher's value file, rewritten in place: the watcher keeps it open.
level() { printf -- "$1" >/tmp/value; }
# SIGUSR1 to the runner's main thread once it waits in a read of the device,
# which the handler (no SA_RESTART, as the daemon's SIGCHLD handler) cuts short.
interrupt_read() { (within 'grep -q wait_woken /proc/$PPID/wchan' && kill -USR1 $PPID) & }
# The runner's mount table, /proc/mounts, which is its own /proc/self/mounts.
table() { umount /proc/$PPID/mounts 2>/dev/null; printf "$1" >/tmp/mounts && mount --bind /tmp/mounts /proc/$PPID/mounts; }

# The appliance's program: a script, whose wait_go waits for /tmp/go.
child() {
    printf '#!/bin/sh\nwait_go() { until [ -e /tmp/go ]; do sleep 0.01; done; }\n%s\n' "$1" >/opt/project/Tolven-ii
    chmod 755 /opt/project/Tolven-ii
}
child_pid() { sed -n 's/.*child \(start as \)\?pid:  "\([0-9]*\)".*/\2/p' "$log" 2>/dev/null | head -n 1; }
# A file (missing: empty) with the child's pid as PID.
show() { sed "s/\"$(child_pid)\"/\"PID\"/g" "$1" 2>/dev/null; true; }
# The daemon in the background, started from / through the command given (env,
# prlimit): its child runs on the card only if the daemon moves it there.
daemon() {
    (cd / && mkdir -p -m 700 /tmp/runtime && XDG_RUNTIME_DIR=/tmp/runtime exec "$@" $DAEMON 2>/tmp/daemon.err) &
    daemon=$!
}
ended() { wait $daemon; echo "ended with $?"; }
# The daemon still runs; it is killed, and whatever it would do, it has done.
stop() { kill -0 $daemon && kill -KILL $daemon && { wait $daemon; } 2>/dev/null; [ $? = 137 ]; }

# The threads step's records in /tmp/log, oldest file first: records 0 to
# RECORDS-1 of each of THREADS threads, whole, once, in its thread's order.
threads_in_order() {
    cat $(ls -d /tmp/log/* | sort -Vr) | awk -v threads=$1 -v records=$2 '
        !/^[0-9.]+ [0-9:.]+ <DEBUG> thread [0-9]+ record [0-9]+$/ || $7 != seen[$5]++ { print "out of place: " $0; bad = 1; exit }
        END { for (t = 0; t < threads; ++t) bad = bad || seen[t] != records; print (bad ? "records lost" : "every record whole, once, in order") }'
}
# The forks step's log: the main thread's records ("main N") once each, in
# order; the others but the busy thread's by count, with T and PID.
forked() {
    awk '$4 == "main" { bad = bad || $5 != seen++ } END { print (bad ? "the main records out of order" : "the main records in order") }' $log
    grep -v '<DEBUG> \(main [0-9]*\|busy\)$' $log | sed 's/^[0-9.]* [0-9:.]* /T /; s/\(pid: *\|retv = *\)"[0-9]*"/\1"PID"/g' |
        sort | uniq -c | sed 's/^ *\([0-9]*\) /\1 x /'
}

# The printer owner example as init starts it (a session leader) against the
# simulated controller with the options given: what the controller received,
# its status and streams, and, for a job that fails, whether its threads held SIGCHLD.
print_job() {
    local out held=no status
    out=$(mktemp -d /var/tmp/printJob.XXXXXX) # outside the controller's own /tmp
    "$SIM" "$@" -- sh -c 'exec "$0" >"$1" 2>"$2"' "$OWNER" "$out/1" "$out/2" >"$out/sim" 2>&1 &
    while kill -0 $! 2>/dev/null; do threads_hold_sigchld && held=yes; sleep 0.01; done
    wait $!; status=$?
    sed 's/, [0-9]* ms)/)/' "$out/sim"
    echo "exit $status"
    [ $status = 0 ] || echo "SIGCHLD held by the link's thread: $held"
    echo "--- standard output"; cat "$out/1"; echo "--- standard error"; cat "$out/2"
    rm -rf "$out"
}
# Whether every thread of the printer example but its main one holds SIGCHLD
# (0x10000 in the mask), once there is such a thread.
threads_hold_sigchld() {
    for pid in $(pgrep -x printerOwner); do grep -H SigBlk /proc/$pid/task/*/status | grep -v "^/proc/$pid/task/$pid/"; done 2>/dev/null |
        awk '{ seen = 1; bad = bad || substr($2, 12, 1) !~ /[13579bdf]/ } END { exit !(seen && !bad) }'
}

# The power owner example (in the test machine's /vm) as owner N, output in
# /tmp/owner.N; SIGUSR1 cuts its waits short, as a handler without SA_RESTART does.
owner() {
    QT_MESSAGE_PATTERN='%{threadid} %{message}' LD_PRELOAD=/vm/libinterruptible.so /vm/powerOwner >/tmp/owner.$1 2>&1 &
    echo $! >/tmp/owner.$1.pid
}
tasks() { sed 's|.*|/proc/&/task/*|' /tmp/owner.*.pid; }
# What owner N said since the last look, each message after its thread.
news() {
    local all=$(wc -l </tmp/owner.$1) seen=$(cat /tmp/owner.$1.seen 2>/dev/null || echo 0)
    head -n $all /tmp/owner.$1 | tail -n +$((seen + 1)) | sed "s/^$(cat /tmp/owner.$1.pid) /main /; s/^[0-9]* /watcher /; s/^/$1 /"
    echo $all >/tmp/owner.$1.seen
}
# Until owner N has said the text COUNT times in all; then its news.
hears() { within "[ \$(grep -cF '$3' /tmp/owner.$1) -ge $2 ]" && news $1; }
# Every owner's every thread asleep in a poll: the watchers back in their waits.
asleep() { for task in $(tasks); do grep -q poll $task/wchan || return 1; done; }
# The owners' processor time in all, in nanoseconds.
used() { for task in $(tasks); do cat $task/schedstat; done | awk '{ns += $1} END {print ns}'; }
# For N seconds (1 unless given), whether each owner used under 1% of a
# processor and said at most a line a second: no busy loop.
rest() {
    local seconds=${1:-1} before=$(used) lines=$(cat /tmp/owner.[0-9] | wc -l) owners=$(ls /tmp/owner.*.pid | wc -l)
    sleep $seconds
    [ $(($(used) - before)) -lt $((owners * seconds * 10000000)) ] && echo "under 1% of a processor each" || echo busy
    [ $(($(cat /tmp/owner.[0-9] | wc -l) - lines)) -le $((owners * (seconds + 1))) ] && echo "a line a second at most" || echo "too many lines"
}
quiet() { within asleep && rest && for n in $(seq $(ls /tmp/owner.*.pid | wc -l)); do news $n; done; }
