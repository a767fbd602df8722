# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# The measurements of ./dev bench.

bench_peers() {
    local rounds=5 document=() side_by_side=$root/bench/peers/side-by-side
    local results=$root/build/windows/bench/peers.json
    while [[ $# -gt 0 ]]; do
        case $1 in
        --rounds)
            [[ ${2-} =~ ^[1-9][0-9]?$ ]] || wrong_usage "--rounds needs a number from 1 to 99"
            rounds=$2
            shift
            ;;
        --docs) document=("$root/docs/performance.md") ;;
        *) wrong_usage "unknown option '$1'" ;;
        esac
        shift
    done
    packages+=(python3 python3-matplotlib)
    set_up packages qt wine windows:lumora_transport peers windows:peers run
    begin_step "Measuring"
    "$side_by_side" run "$root" "$results" "$rounds"
    exec "$side_by_side" report "$results" "${document[@]}"
}

bench_micro() {
    local program=$root/build/native-bench/bench/lumora-bench
    local results=$root/build/native-bench/micro-benchmarks.json
    packages+=("${bench_packages[@]}")
    set_up packages native-bench:lumora-bench run
    if [[ $# -eq 0 ]]; then
        step=$((step + 1))
        long_step "Measuring, about a minute" bench progress_working \
            "$program" --benchmark_out="$results" || fail "The benchmarks failed, see above."
        exec "$root/bench/report" "$results"
    fi
    rm -f "$results"
    "$program" --benchmark_out="$results" --benchmark_display_aggregates_only=true "$@" >&2
    [[ ! -s $results ]] || exec "$root/bench/report" --partial "$results"
}
