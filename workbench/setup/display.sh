# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# What the user sees of ./dev: messages, numbered steps, long commands with their progress. Sourced
# by ./dev, as the other *.sh files here are. Standard output belongs to the programs that are run;
# all of this goes to standard error.

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

# Counted by set_up: a need is one number, whether or not there is anything to do for it.
declare -i step=0 steps=0
step_title='' step_start=0

start_step() {
    step_title="[$step/$steps] $1"
    step_start=$SECONDS
}

# For a step that shows its own output.
show_title() {
    start_step "$1"
    say "$step_title"
}

# A command's own step, after those that set_up took.
begin_step() {
    step+=1
    show_title "$1"
}

# show_step TEXT: how far the step is, on a terminal in place.
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
# log; PROGRESS is a function that reads the log and prints how far the command is.
long_step() {
    local log=$logs/$2.log progress=$3 status=0 shown
    start_step "$1"
    shift 3
    if ! mkdir -p "$logs" 2>/dev/null || [[ ! -w $logs ]]; then
        fail "The cache $cache cannot be written: name another folder in LUMORA_CACHE."
    fi
    if [[ -t 2 ]]; then show_step "working"; else say "$step_title"; fi
    # A process group of its own, so that an interruption ends the command's children too.
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

# hold_lock FILE WHAT ... release_lock: one ./dev at a time. Commands inherit the lock, so it also
# outlives a ./dev that is killed, until what it had started has ended.
hold_lock() {
    if ! { mkdir -p "${1%/*}" && true >>"$1"; } 2>/dev/null; then
        [[ $1 != "$root"/* ]] || fail "$1 cannot be written: this tree is another user's, clone it for yourself."
        fail "$1 cannot be written: make its folder writable, or name another cache in LUMORA_CACHE."
    fi
    exec {lock}>>"$1"
    flock -n "$lock" || {
        say "Waiting for another ./dev, which is busy with $2."
        flock "$lock"
    }
}

release_lock() { exec {lock}>&-; }
