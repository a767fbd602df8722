# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# QtCore for Windows: built once by the recipe qt-windows and kept in the cache.

# Sets qt_dir: named for Qt's version, the compiler's and the recipe's, so that each has its own.
locate_qt() {
    local version hash
    version=$(dpkg-query -W -f '${source:Version}' qtbase5-dev 2>/dev/null) || version=
    hash=$({
        echo "$version"
        dpkg-query -W -f '${Version}' g++-mingw-w64-x86-64-posix 2>/dev/null || true
        cat "$setup/qt-windows"
    } | sha256sum)
    qt_dir=$cache/qt-${version%%[+-]*}-${hash:0:12}
    export LUMORA_QT_DIR=$qt_dir
}

progress_fetch() { du -sm "$qt_work" | awk '{ printf "%d MB fetched and unpacked", $1 }'; }

progress_compile() {
    printf 'compiled %d of about 250 files' \
        "$(grep -cE '^x86_64-w64-mingw32-g(cc|\+\+) .*-c ' "$1")"
}

provide_qt() {
    local status
    locate_qt
    [[ ! -d $qt_dir ]] || return 0
    [[ $cache != *[[:space:]]* ]] ||
        fail "Qt cannot be built in '$cache', which has a space: name another folder in LUMORA_CACHE."
    hold_lock "$cache/lock" "packages or Qt"
    # It may stand there now, from the run we waited for.
    if [[ -d $qt_dir ]]; then
        release_lock
        return
    fi

    # Made in a folder that has another name until it is whole.
    rm -rf "$cache"/qt-*.partial
    qt_work=$qt_dir.partial
    mkdir "$qt_work"
    long_step "Fetching Qt's source package" qt-fetch progress_fetch "$setup/qt-windows" fetch "$qt_work" || {
        status=$?
        [[ $status -ne 3 ]] ||
            fail "Qt's source package is of another version than the installed qtbase5-dev: bring the" \
                "package lists and qtbase5-dev up to date, then run this again (log: $logs/qt-fetch.log)."
        ! no_network "$logs/qt-fetch.log" ||
            fail "Qt's source package could not be downloaded, no package server answers:" \
                "check the network or the proxy, then run this again (log: $logs/qt-fetch.log)."
        fail "Qt's source package could not be had from the machine's package sources:" \
            "mend what $logs/qt-fetch.log says, then run this again."
    }
    long_step "Configuring Qt" qt-configure progress_working "$setup/qt-windows" configure "$qt_work" ||
        fail "Qt could not be configured: mend what $logs/qt-configure.log says, then run this again."
    long_step "Compiling QtCore for Windows" qt-compile progress_compile \
        "$setup/qt-windows" compile "$qt_work" "$jobs" ||
        fail "QtCore could not be compiled: mend what $logs/qt-compile.log says, then run this again."
    mv "$qt_work/root/qt5" "$qt_dir"
    rm -rf "$qt_work"
    release_lock
}
