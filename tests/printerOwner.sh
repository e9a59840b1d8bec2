#!/usr/bin/env bash
# The printer owner example as an init system starts it (the leader of a
# session of its own) against the simulated controller, once for each
# golden/printerOwner-*.txt: its first line gives simPrinter's options; then
# come what simPrinter prints (times masked), the exit status (never death
# by the line's SIGHUP or SIGINT) and the example's standard output and
# error. While a job that fails runs, the link's thread must hold SIGCHLD.
#   printerOwner.sh SIMPRINTER PRINTEROWNER
set -uo pipefail
sim=$1 owner=$2 failures=0

# True when the job has threads besides its main thread and all hold SIGCHLD.
held() {
    local pid task seen=1
    for pid in $(pgrep -x printerOwner); do
        for task in /proc/"$pid"/task/*; do
            [ "${task##*/}" = "$pid" ] && continue
            (( 0x$(sed -n 's/^SigBlk:\t//p' "$task/status") & 1 << 16 )) || return 1
            seen=0
        done
    done
    return $seen
}

for golden in "$(dirname "$0")"/golden/printerOwner-*.txt; do
    eval "options=($(head -n 1 "$golden"))"
    out=$(mktemp -d /var/tmp/printerOwner.XXXXXX) # outside the private /tmp
    "$sim" "${options[@]}" -- sh -c 'exec "$0" >"$1" 2>"$2"' "$owner" "$out/1" "$out/2" >"$out/sim" 2>&1 &
    holds=no
    while kill -0 $! 2>/dev/null; do held && holds=yes; sleep 0.01; done
    wait $!
    status=$?
    { head -n 1 "$golden"; sed 's/, [0-9]* ms)/)/' "$out/sim"; echo "exit $status"
      echo "--- standard output"; cat "$out/1"; echo "--- standard error"; cat "$out/2"; } >"$out/got"
    diff -u "$golden" "$out/got" || failures=$((failures + 1))
    [ $holds = yes ] || [ $status = 0 ] || { echo "${golden##*/}: the link's thread does not hold SIGCHLD"; failures=$((failures + 1)); }
    rm -rf "$out"
done
[ $failures = 0 ] || { echo "$failures checks failed"; exit 1; }
echo "all checks passed"
