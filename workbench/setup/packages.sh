# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Debian packages. A command adds what it needs to `packages`; missing ones are installed.

packages=(
    cmake ninja-build make ccache g++ g++-mingw-w64-x86-64-posix wine64 wine64-tools googletest
    qtbase5-dev dpkg-dev # native builds, and QtCore for Windows
)
qt6_packages=(qt6-base-dev) # native builds with Qt 6
native_packages=(clang libclang-rt-dev) # of which the fuzzers are made, too
bench_packages=(libbenchmark-dev valgrind python3)
check_packages=(git clang clang-format clang-tidy cppcheck shellcheck)

missing_packages() {
    local installed package
    installed=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "${packages[@]}" 2>/dev/null) || true
    for package in "${packages[@]}"; do
        grep -qxF "installed $package" <<<"$installed" || echo "$package"
    done
}

progress_packages() {
    awk '/ newly installed/ { total = $1 + $3 }
         total && /^Get:/ { downloaded++ }
         /^Unpacking / { unpacked++ }
         /^Setting up / { ready++ }
         END { if (total) printf "of %d packages downloaded %d, unpacked %d, set up %d",
                                 total, downloaded, unpacked, ready
               else print "reading the package lists" }' "$1"
}

# install_packages PACKAGE...
install_packages() {
    "${as_root[@]}" apt-get -q update
    # Resumes an interrupted installation.
    "${as_root[@]}" dpkg --configure -a
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive LC_ALL=C \
        apt-get -q -y -f --no-install-recommends -o DPkg::Lock::Timeout=300 -o Acquire::Retries=3 \
        install "$@"
}

# Asks for the password, if needed, while the terminal is free.
may_use_sudo() {
    command -v sudo >/dev/null || return 1
    sudo -n true 2>/dev/null || { [[ -t 0 && -t 2 ]] && sudo -v; }
}

provide_packages() {
    local missing as_root=() log=$logs/packages.log
    [[ -x $(command -v apt-get) && -x $(command -v dpkg-query) ]] ||
        fail "apt-get and dpkg-query are missing: ./dev needs a machine or container with Debian 12 or 13."
    mapfile -t missing < <(missing_packages)
    [[ ${#missing[@]} -gt 0 ]] || return 0
    [[ $(dpkg --print-architecture 2>/dev/null) == amd64 ]] ||
        fail "This machine is not a 64-bit PC (amd64), which Wine needs to run the Windows programs."
    if [[ $EUID -ne 0 ]]; then
        as_root=(sudo)
        may_use_sudo ||
            fail "Debian packages are missing, and only root may install them: run 'apt-get install" \
                "--no-install-recommends ${missing[*]}' as root, then run this again."
    fi
    hold_lock "$cache/lock" "packages or Qt"
    say "Missing Debian packages: ${missing[*]}"
    long_step "Installing Debian packages" packages progress_packages install_packages "${missing[@]}" || {
        ! no_network "$log" ||
            fail "The Debian packages could not be downloaded because no package server answers:" \
                "check the network or the proxy, then run this again (log: $log)."
        fail "apt-get could not install ${missing[*]}: fix what $log says, then run this again."
    }
    release_lock
}

no_network() {
    grep -qE "Temporary failure|Could not (resolve|connect)|Unable to connect|Connection (failed|timed out)" "$1"
}
