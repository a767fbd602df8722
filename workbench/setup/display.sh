# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# The display of ./dev: messages, numbered steps, progress of long commands. ./dev sources it, like the
# other *.sh files here. It writes to standard error; standard output belongs to the programs.

say() { printf '%s\n' "$*" >&2; }

fail() {
    say "dev: $*"
    exit 1
}

wrong_usage() {
    say "dev: $* (./dev help lists the commands)"
    exit 2
}

expect_no_arguments() {
    [[ $# -eq 0 ]] || wrong_usage "unknown option '$1'"
}

duration() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }

# Counted by set_up: every need is a step, even if it is met already.
declare -i step=0 steps=0
step_title='' step_start=0

start_step() {
    step_title="[$step/$steps] $1"
    step_start=$SECONDS
}

# Starts a step that shows its own output.
show_title() {
    start_step "$1"
    say "$step_title"
}

# Starts a command's own step, after those of set_up.
begin_step() {
    step+=1
    show_title "$1"
}

# show_step TEXT: shows the step's progress, on a terminal in place.
show_step() {
    local text="$step_title: $1"
    if [[ -t 2 ]]; then
        printf '\r\033[K%s' "${text:0:$(($(tput cols 2>/dev/null || echo 80) - 1))}" >&2
    else
        say "$text"
    fi
}

end_step() {
    show_step "$1 in $(duration $((SECONDS - step_start)))"
    [[ ! -t 2 ]] || say
}

job=''
stop_job() {
    [[ -n $job ]] || return 0
    kill -TERM -- "-$job" 2>/dev/null || true
    wait "$job" 2>/dev/null || true
    job=''
}
trap stop_job EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# long_step TITLE LOG PROGRESS COMMAND...: runs the command in the background with its output in the
# log. The function PROGRESS reads the log and prints the command's progress.
long_step() {
    local log=$logs/$2.log progress=$3 status=0 shown
    start_step "$1"
    shift 3
    if ! mkdir -p "$logs" 2>/dev/null || [[ ! -w $logs ]]; then
        fail "Cannot write to the cache $cache: set LUMORA_CACHE to another folder."
    fi
    if [[ -t 2 ]]; then show_step "working"; else say "$step_title"; fi
    # Its own process group, so that an interruption also ends the command's children.
    set -m
    "$@" </dev/null >"$log" 2>&1 &
    job=$!
    set +m
    shown=$SECONDS
    while kill -0 "$job" 2>/dev/null; do
        sleep 0.2
        if [[ -t 2 && $SECONDS -gt $shown ]] || ((SECONDS - shown >= 30)); then
            shown=$SECONDS
            show_step "$("$progress" "$log") ($(duration $((SECONDS - step_start))))"
        fi
    done
    wait "$job" || status=$?
    job=''
    if [[ $status -eq 0 ]]; then
        end_step "done"
    else
        end_step "failed"
        say "The last lines of $log:"
        tail -n 15 "$log" | cut -c1-200 | sed 's/^/    /' >&2
    fi
    return "$status"
}

progress_working() { printf 'working'; }

# hold_lock FILE WHAT ... release_lock: admits one ./dev at a time. Commands inherit the lock, so after
# a ./dev is killed it is held until they have ended.
hold_lock() {
    if ! { mkdir -p "${1%/*}" && true >>"$1"; } 2>/dev/null; then
        [[ $1 != "$root"/* ]] || fail "Cannot write $1: this tree belongs to another user; make your own clone."
        fail "Cannot write $1: make its folder writable, or set LUMORA_CACHE to another folder."
    fi
    exec {lock}>>"$1"
    flock -n "$lock" || {
        say "Waiting for another ./dev, which is busy with $2."
        flock "$lock"
    }
}

release_lock() { exec {lock}>&-; }
