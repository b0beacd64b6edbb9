# Sourced by the scripts of this folder: strict mode, the root as working directory, and what they
# share.
# shellcheck shell=bash

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# What every build needs.
# shellcheck disable=SC2034 # used by those who source this
build_packages=(g++ cmake ninja-build libcli11-dev nlohmann-json3-dev zlib1g-dev
    libcurl4-openssl-dev libprotobuf-dev protobuf-compiler libxxhash-dev)

say() { printf '==> %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# install_packages NAME...: installs the Debian packages that are missing.
install_packages() {
    if ! command -v dpkg-query >/dev/null; then
        say "no dpkg here; taking for granted what these packages hold: $*"
        return
    fi
    local present package
    present=$'\n'$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' "$@" 2>/dev/null || true)$'\n'
    local missing=()
    for package in "$@"; do
        [[ $present == *$'\n'"installed $package"$'\n'* ]] || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0

    say "installing: ${missing[*]}"
    local as_root=()
    if ((EUID != 0)); then
        command -v sudo >/dev/null || die "install these as root, or install sudo: ${missing[*]}"
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update -qq
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# build_preset NAME [TARGET...]: brings build/NAME up to date. Configures it when that was never
# done, when the presets have changed since, and when the tree has moved.
build_preset() {
    local preset=$1 directory=build/$1
    shift
    if [[ ! -e $directory/build.ninja || CMakePresets.json -nt $directory/build.ninja ]] ||
        ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$directory/CMakeCache.txt"; then
        say "configuring $directory"
        cmake --preset "$preset" --fresh >/dev/null
    fi
    say "building $directory"
    cmake --build --preset "$preset" ${1:+--target "$@"}
}
