# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Builds QtCore for Windows once, by the recipe qt-windows or qt6-windows, and keeps it in the cache.

# locate_qt PACKAGE RECIPE: prints the folder for this version of Qt, of the compiler and of the
# recipe.
locate_qt() {
    local version hash
    version=$(dpkg-query -W -f '${source:Version}' "$1" 2>/dev/null) || version=
    hash=$({
        echo "$version"
        dpkg-query -W -f '${Version}' g++-mingw-w64-x86-64-posix 2>/dev/null || true
        cat "$setup/$2"
    } | sha256sum)
    echo "$cache/qt-${version%%[+-]*}-${hash:0:12}"
}

progress_fetch() { du -sm "$qt_work" | awk '{ printf "%d MB fetched and unpacked", $1 }'; }

# Counts the lines of make or of Ninja.
progress_compile() {
    local ninja
    ninja=$(sed -nE 's|^\[([0-9]+)/([0-9]+)\].*|compiled \1 of \2 files|p' "$1" | tail -n 1)
    printf '%s' "${ninja:-compiled $(grep -cE '^x86_64-w64-mingw32-g(cc|\+\+) .*-c ' "$1") of about 250 files}"
}

provide_qt() {
    qt_dir=$(locate_qt qtbase5-dev qt-windows)
    export LUMORA_QT_DIR=$qt_dir
    provide_qt_in "$qt_dir" 5 qtbase5-dev qt-windows
}

provide_qt6() {
    qt6_dir=$(locate_qt qt6-base-dev qt6-windows)
    export LUMORA_QT6_DIR=$qt6_dir
    provide_qt_in "$qt6_dir" 6 qt6-base-dev qt6-windows
}

# provide_qt_in FOLDER MAJOR PACKAGE RECIPE
provide_qt_in() {
    local folder=$1 qt="Qt $2" package=$3 recipe=$setup/$4 log=$logs/qt$2 status
    [[ ! -d $folder ]] || return 0
    [[ $cache != *[[:space:]]* ]] ||
        fail "Qt cannot be built in '$cache', whose path has a space: set LUMORA_CACHE to another folder."
    hold_lock "$cache/lock" "packages or Qt"
    # The run that we waited for may have built it.
    if [[ -d $folder ]]; then
        release_lock
        return
    fi

    # Uses another folder name until the build is complete.
    rm -rf "$cache"/qt-*.partial
    qt_work=$folder.partial
    mkdir "$qt_work"
    long_step "Fetching $qt's source package" "qt$2-fetch" progress_fetch "$recipe" fetch "$qt_work" || {
        status=$?
        [[ $status -ne 3 ]] ||
            fail "$qt's source package and the installed $package have different versions: update the" \
                "package lists and $package, then run this again (log: $log-fetch.log)."
        ! no_network "$log-fetch.log" ||
            fail "$qt's source package could not be downloaded because no package server answers:" \
                "check the network or the proxy, then run this again (log: $log-fetch.log)."
        fail "The machine's package sources did not provide $qt's source package:" \
            "fix what $log-fetch.log says, then run this again."
    }
    long_step "Configuring $qt" "qt$2-configure" progress_working "$recipe" configure "$qt_work" ||
        fail "$qt could not be configured: fix what $log-configure.log says, then run this again."
    long_step "Compiling QtCore $2 for Windows" "qt$2-compile" progress_compile \
        "$recipe" compile "$qt_work" "$jobs" ||
        fail "QtCore $2 could not be compiled: fix what $log-compile.log says, then run this again."
    mv "$qt_work/root/qt$2" "$folder"
    rm -rf "$qt_work"
    release_lock
}
