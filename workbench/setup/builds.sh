# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# The builds of CMakePresets.json, each in build/PRESET, and the Wine prefix that runs them.

# Compiles a source once, in whichever clone.
export CMAKE_CXX_COMPILER_LAUNCHER=${CMAKE_CXX_COMPILER_LAUNCHER-ccache}
export CCACHE_DIR=${CCACHE_DIR-$cache/ccache} CCACHE_MAXSIZE=${CCACHE_MAXSIZE-2G}
export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1 CCACHE_DEPEND=1

# provide_wine [PRESET]: each Windows build has its own prefix, so that their tests can run at the same
# time.
provide_wine() {
    local preset=${1-windows}
    local prefix=$root/build/wine${preset#windows}
    [[ -f $prefix/.lumora ]] ||
        LUMORA_BUILD=$root/build/$preset long_step "Making the Wine prefix" wine progress_working \
            "$setup/on-wine" cmd /c exit ||
        fail "The Wine prefix could not be made: fix what $prefix.log says, then run this again."
}

# What a build folder is configured from; after a change it is configured afresh.
configuration_of() {
    cat "$root/CMakePresets.json" "$setup/mingw-w64.cmake" | sha256sum
    case $1 in
    windows) echo "$qt_dir" ;;
    windows-qt6) echo "$qt6_dir" ;;
    esac
}

# is_built PRESET [TARGET...]: whether Ninja finds nothing to do.
is_built() {
    ninja -C "$root/build/$1" -n "${@:2}" 2>/dev/null | grep -q '^ninja: no work to do'
}

# configure PRESET: afresh, or only what has changed.
configure() {
    local folder=$root/build/$1 command=(ninja -C "$root/build/$1" build.ninja)
    if [[ $(cat "$folder/configuration" 2>/dev/null) != "$(configuration_of "$1")" ]]; then
        mkdir -p "$folder"
        rm -f "$folder/configuration"
        command=(cmake --fresh -S "$root" --preset "$1")
    elif is_built "$1" build.ninja; then
        return
    fi
    long_step "Configuring the $1 build" "configure-$1" progress_working "${command[@]}" ||
        fail "CMake could not configure the $1 build: fix what" \
            "$logs/configure-$1.log says, then run this again."
    configuration_of "$1" >"$folder/configuration"
}

# provide_configured PRESET
provide_configured() {
    hold_lock "$root/build/lock" "the build"
    configure "$1"
    release_lock
}

# provide_build PRESET [TARGET...]: builds the targets, or all.
provide_build() {
    local preset=$1 targets=()
    shift
    [[ $# -eq 0 ]] || targets=(--target "$@")
    hold_lock "$root/build/lock" "the build"
    configure "$preset"
    if ! is_built "$preset" "$@"; then
        show_title "Building $preset"
        NINJA_STATUS='    [%f/%t, %e s] ' \
            cmake --build "$root/build/$preset" --parallel "$jobs" "${targets[@]}" >&2 ||
            fail "The $preset build failed: fix the errors above, then run this again."
        end_step "done"
    fi
    release_lock
}

# --- What tests need ----------------------------------------------------------------------------

# CTest's arguments, which select tests.
test_arguments=()

# files_of_tests PRESET: the build's files that the selected tests run or have as arguments. CTest
# lists a program that is not built yet as one that it could not find.
files_of_tests() {
    local folder=$root/build/$1
    ctest --test-dir "$folder" -N -V "${test_arguments[@]}" | tr '"' '\n' |
        sed -nE "s/^(Could not find executable|[0-9]+: Test command:) //; s/ \$//; s|^$folder/||p" |
        sort -u | grep -xFf <(ninja -C "$folder" -t targets all | sed 's/: [^:]*$//') || true
}

# provide_tests PRESET: builds what the selected tests need; PRESET is configured already.
provide_tests() {
    local files
    mapfile -t files < <(files_of_tests "$1")
    [[ ${#files[@]} -gt 0 ]] || return 0
    provide_build "$1" "${files[@]}"
    [[ $1 != windows* ]] || provide_wine "$1"
}
