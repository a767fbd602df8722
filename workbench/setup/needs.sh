# shellcheck shell=bash disable=SC2034,SC2154 # shared with ./dev
# Sets up what a command needs, with one script for each need.

for part in display packages qt qt4 builds peers; do
    # shellcheck disable=SC1090 # each is checked on its own
    . "${BASH_SOURCE[0]%/*}/$part.sh"
done

# set_up NEED...: packages, qt, qt4, qt6, wine, peers, configured:BUILD, tests:BUILD, or a build such as
# "windows" or "windows:TARGET:TARGET". "run" counts a step that the command itself begins.
set_up() {
    local need words
    steps=$#
    for need in "$@"; do
        IFS=: read -ra words <<<"$need"
        case ${words[0]} in
        run) continue ;;
        packages | qt | qt4 | qt6 | wine | peers | configured | tests) words[0]=provide_${words[0]} ;;
        *) words=(provide_build "${words[@]}") ;;
        esac
        step=$((step + 1))
        "${words[@]}"
    done
}
