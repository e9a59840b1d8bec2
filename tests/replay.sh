# Sourced by the test scripts: replay GOLDEN runs each "$ " line of GOLDEN in
# the calling shell and fails unless the transcript, each line followed by
# its output (numbers as N) and its status in brackets, is GOLDEN itself.
replay() {
    local line code transcript=$work/transcript said=$work/said
    while IFS= read -r line; do
        [ "${line:0:2}" = '$ ' ] || continue
        echo "$line"
        code=0
        eval "${line:2}" </dev/null >"$said" 2>&1 || code=$?
        sed 's/[0-9]\+/N/g' "$said"
        echo "[$code]"
    done <"$1" >"$transcript"
    diff -u <(grep -v '^#' "$1") "$transcript" && echo "all as in $1"
}
