# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Fetches the headers of Qt 4.8, with which a check compiles the sources. Without npm or a network,
# that check is skipped.

provide_qt4() {
    local hash
    hash=$(sha256sum <"$setup/qt4-headers")
    export LUMORA_QT4=$cache/qt4-${hash:0:12}
    [[ ! -d $LUMORA_QT4 && -x $(command -v npm) ]] || return 0
    hold_lock "$cache/lock" "packages or Qt"
    rm -rf "$cache"/qt4-*
    mkdir "$LUMORA_QT4.partial"
    if long_step "Fetching the headers of Qt 4.8" qt4-fetch progress_working \
        "$setup/qt4-headers" "$LUMORA_QT4.partial"; then
        mv "$LUMORA_QT4.partial" "$LUMORA_QT4"
    else
        say "Without them, ./dev does not check the sources with Qt 4.8."
    fi
    release_lock
}
