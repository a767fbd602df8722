# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Removes what ./dev has made.

clean_build() {
    local wineserver=/usr/lib/wine/wineserver64 prefix
    [[ -d $root/build ]] || return 0
    hold_lock "$root/build/lock" "the build"
    for prefix in "$root"/build/wine*; do
        [[ ! -d $prefix || ! -x $wineserver ]] || WINEPREFIX=$prefix "$wineserver" -k || true
    done
    say "Removing $root/build"
    rm -rf "$root/build"
}

clean_cache() {
    local entry
    [[ -d $cache ]] || return 0
    hold_lock "$cache/lock" "packages or Qt"
    # By name: the folder LUMORA_CACHE may contain other things.
    for entry in "$cache"/qt-* "$cache"/qt4-* "$cache"/peers-* "$cache/ccache" "$logs" "$cache/lock"; do
        [[ -e $entry ]] || continue
        say "Removing $entry ($(du -sh "$entry" | cut -f1))"
        rm -rf "$entry"
    done
    rmdir --ignore-fail-on-non-empty "$cache"
}
