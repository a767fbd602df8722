# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Makes the installed tree and the zip from the windows build.

# install_to FOLDER
install_to() {
    cmake --install "$root/build/windows" --prefix "$1" >"$logs/install.log" 2>&1 ||
        fail "Could not install to $1: fix what $logs/install.log says, then run this again."
    end_step "done"
    say "Installed in $1."
    say_how_hosts_build "$1"
}

pack() {
    local zip log=$logs/package.log
    rm -rf "$root/build/package"
    cpack --config "$root/build/windows/CPackConfig.cmake" -B "$root/build/package" >"$log" 2>&1 ||
        fail "CPack could not make the zip: fix what $log says, then run this again."
    zip=$(echo "$root"/build/package/*.zip)
    end_step "done"
    say_how_hosts_build "/where/you/unpack/it/$(basename "$zip" .zip)"
    echo "$zip"
}

say_how_hosts_build() {
    say "To find the library and its Qt, configure a host's build with
    cmake -B build --toolchain $setup/mingw-w64.cmake \\
        \"-DCMAKE_PREFIX_PATH=$1;$qt_dir\""
}
