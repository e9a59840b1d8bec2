#!/usr/bin/env bash
# The printer owner example as an init system starts it (the leader of a
# session of its own) against the simulated controller:
#   printerOwner.sh SIMPRINTER PRINTEROWNER
# Each row: the controller's behaviour, the exit status the example must end
# with (never death by the line's SIGHUP or SIGINT), the commands the
# controller must have received, in order and nothing after, and what the
# example must say. While a row runs, the link's thread must hold SIGCHLD.
set -euo pipefail
sim=$1 owner=$2

job="G28,M117,G1 X10 Y10 F3000,M117,M104 S200,M117,M105,M117"
rows=(
    # name | simPrinter options | status | commands received | said
    "a normal job||0|$job|M105 -> ok 7"
    "a hang-up in the middle|--hang-up 3|1|G28,M117,G1 X10 Y10 F3000|command 2 of 4, \"G1 X10 Y10 F3000\", failed; the job is stopped there"
    "a 0x03 byte in an answer|--answer 3 ok 3\\x03\\r\\n|1|G28,M117,G1 X10 Y10 F3000|command 2 of 4, \"G1 X10 Y10 F3000\", failed; the job is stopped there"
)

# SIGCHLD's bit in a thread's SigBlk mask, for every thread of the job but
# its main thread; true when there is such a thread and all hold it.
linkThreadHoldsSigchld() {
    local pid task mask seen=0
    for pid in $(pgrep -x printerOwner); do
        for task in /proc/"$pid"/task/*; do
            [ "${task##*/}" = "$pid" ] && continue
            mask=$(sed -n 's/^SigBlk:\t//p' "$task/status") || return 1
            (( 0x$mask & (1 << (17 - 1)) )) || return 1
            seen=1
        done
    done
    [ "$seen" = 1 ]
}

failures=0
fail() { echo "FAIL  $row: $*"; failures=$((failures + 1)); }
for entry in "${rows[@]}"; do
    IFS='|' read -r row options status commands said <<<"$entry"
    read -r -a args <<<"$options"
    # --answer takes its text as one argument.
    [ "${args[0]:-}" = --answer ] && args=(--answer "${args[1]}" "${args[*]:2}")
    log=$(mktemp)
    "$sim" "${args[@]}" -- "$owner" >"$log" 2>&1 &
    sim_pid=$!
    held=no
    for _ in $(seq 100); do
        if linkThreadHoldsSigchld; then held=yes; break; fi
        kill -0 "$sim_pid" 2>/dev/null || break
        sleep 0.01
    done
    code=0
    wait "$sim_pid" || code=$?
    received=$(sed -n 's/^controller <- \(.*[^ ]\) *(exchange.*/\1/p' "$log" | paste -sd,)
    [ "$code" = "$status" ] || fail "exit status $code, not $status"
    [ "$received" = "$commands" ] || fail "the controller received: $received"
    grep -qF -- "$said" "$log" || fail "no \"$said\""
    # A fast job may end before the check sees its thread.
    [ "$held" = yes ] || [ "$status" = 0 ] || fail "the link's thread does not hold SIGCHLD"
    [ "$failures" -eq 0 ] && echo "ok    $row" || cat "$log"
    rm -f "$log"
done
[ "$failures" -eq 0 ] || { echo "$failures checks failed"; exit 1; }
echo "all checks passed"
