# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Fetches the libraries to compare with into the cache and adds them to the windows build.

# The folder is named for the recipe, which has their versions.
locate_peers() {
    local hash
    hash=$(sha256sum <"$root/bench/peers/fetch")
    peers_dir=$cache/peers-${hash:0:12}
}

peers_are_configured() {
    grep -qxF "LUMORA_PEERS_DIR:PATH=$peers_dir" "$root/build/windows/CMakeCache.txt" 2>/dev/null &&
        grep -qxF "LUMORA_PEERS:BOOL=ON" "$root/build/windows/CMakeCache.txt"
}

provide_peers() {
    locate_peers
    if [[ ! -d $peers_dir ]]; then
        hold_lock "$cache/lock" "packages or Qt"
        rm -rf "$cache"/peers-*
        mkdir "$peers_dir.partial"
        long_step "Fetching RtMidi and PortMidi" peers-fetch progress_working \
            "$root/bench/peers/fetch" "$peers_dir.partial" || {
            ! no_network "$logs/peers-fetch.log" ||
                fail "The sources could not be downloaded because no package server answers:" \
                    "check the network or the proxy, then run this again (log: $logs/peers-fetch.log)."
            fail "The machine's package sources did not provide the sources:" \
                "fix what $logs/peers-fetch.log says, then run this again."
        }
        mv "$peers_dir.partial" "$peers_dir"
        release_lock
    fi
    if ! peers_are_configured; then
        hold_lock "$root/build/lock" "the build"
        long_step "Adding them to the windows build" configure-peers progress_working \
            cmake -D LUMORA_PEERS=ON -D "LUMORA_PEERS_DIR=$peers_dir" "$root/build/windows" ||
            fail "CMake could not configure them: fix what $logs/configure-peers.log says, then run this again."
        release_lock
    fi
}
