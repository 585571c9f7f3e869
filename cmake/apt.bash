# SPDX-License-Identifier: Apache-2.0
# Sourced by the scripts that make sysroots: apt of another architecture. It takes the machine's list
# of repositories, their keys and apt's configuration, nothing else of the machine, and writes into
# its own folder only.

# alone_at FOLDER: waits until no other script makes FOLDER; others wait until this one has ended.
alone_at() {
    mkdir -p "$(dirname "$1")"
    exec 9>"${1%/}.lock"
    flock 9
}

# foreign_apt ARCHITECTURE FOLDER: fetches the indexes of packages and of sources into FOLDER.
foreign_apt() {
    local list
    apt_folder=$(mkdir -p "$2" && cd "$2" && pwd)
    mkdir -p "$apt_folder"/{lists,cache}/partial "$apt_folder/repositories"
    : >"$apt_folder/status"
    for list in /etc/apt/sources.list /etc/apt/sources.list.d/*; do
        [ ! -f "$list" ] || sed -E -e 's/^Types:.*/Types: deb deb-src/' -e 's/^deb (.*)/&\ndeb-src \1/' \
            "$list" >"$apt_folder/repositories/${list##*/}"
    done
    apt_options=(
        -o "APT::Architecture=$1" -o "APT::Architectures::=$1" -o APT::Sandbox::User=root
        -o "Dir::State=$apt_folder" -o "Dir::State::status=$apt_folder/status"
        -o "Dir::Cache=$apt_folder/cache" -o "Dir::Cache::archives=$apt_folder/cache"
        -o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$apt_folder/repositories"
    )
    # One index out of several that cannot be had is no reason to give up; a package that is is.
    apt-get "${apt_options[@]}" update -q >"$apt_folder/log" 2>&1 || true
}

# foreign_get ARGUMENTS: of apt-get; what it says is shown only when it fails.
foreign_get() {
    if ! apt-get "${apt_options[@]}" -q -y "$@" >>"$apt_folder/log" 2>&1; then
        tail -n 20 "$apt_folder/log" >&2
        return 1
    fi
}
