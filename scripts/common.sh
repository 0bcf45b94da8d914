# shellcheck shell=bash
# SPDX-License-Identifier: MIT
# Shared by the scripts in this folder. Source it, don't run it.

set -euo pipefail

# The project's folder, wherever the script was called from.
project=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Debian packages, grouped by purpose.
# shellcheck disable=SC2034 # read by the scripts that source this file
{
    daemonPackages=(g++ cmake ninja-build pkg-config libglib2.0-dev)
    developmentPackages=("${daemonPackages[@]}" libgtest-dev libgmock-dev libcli11-dev libssl-dev
        dbus-daemon)
    testPackages=("${developmentPackages[@]}" util-linux python3 python3-cryptography-vectors
        g++-arm-linux-gnueabihf qemu-user)
    demoPackages=("${developmentPackages[@]}" util-linux python3)
    lintPackages=("${developmentPackages[@]}" git clang clang-format-16 clang-tidy cppcheck shellcheck
        mandoc pyflakes3 python3)
}

if [[ -t 1 && ${TERM:-dumb} != dumb && -z ${NO_COLOR:-} ]]; then
    bold=$'\e[1m' red=$'\e[31m' green=$'\e[32m' yellow=$'\e[33m' plain=$'\e[0m'
else
    bold='' red='' green='' yellow='' plain=''
fi

# Announces a step that takes time.
step() { printf '%s==> %s%s\n' "$bold" "$*" "$plain"; }
good() { printf '%s%s%s\n' "$green" "$*" "$plain"; }
warn() { printf '%swarning:%s %s\n' "$yellow" "$plain" "$*" >&2; }
die() {
    printf '%s%s:%s %s\n' "$red" "${0##*/}" "$plain" "$*" >&2
    exit 1
}

# Prints the comment at the head of the calling script, for --help.
usage() { sed -n '2,/^[^#]/{/^# SPDX/d;s/^# \{0,1\}//p;}' "$0"; }

isInstalled() {
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Installs whichever of the named Debian packages are missing, as root or through
# sudo. On systems that aren't based on Debian it only prints what is needed.
needPackages() {
    local package missing=() elevate=()
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        warn "not a Debian system: install the equivalents of these packages yourself: $*"
        return
    fi
    for package in "$@"; do
        isInstalled "$package" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            die "missing packages; as root run: apt-get install ${missing[*]}"
        elevate=(sudo)
    fi
    step "Installing from Debian: ${missing[*]}"
    aptInstall "${missing[@]}" >/dev/null 2>&1 && return
    # A fresh machine has no package lists, or outdated ones.
    "${elevate[@]}" apt-get -qq update || warn "apt-get update failed; trying with the present package lists"
    aptInstall "${missing[@]}" || die "couldn't install: ${missing[*]}"
}

# Uses the caller's `elevate`. Waits if another script is installing packages.
aptInstall() {
    "${elevate[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "$@" </dev/null
}

# Runs the compilers through ccache if it is installed; nothing depends on it.
useCompilerCache() {
    if [[ -z ${CMAKE_CXX_COMPILER_LAUNCHER:-} ]] && command -v ccache >/dev/null; then
        export CMAKE_CXX_COMPILER_LAUNCHER=ccache
        # Lets another clone of the same sources reuse what this one has compiled.
        export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$project} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
    fi
}

# Configures and builds a preset, with little output unless it fails.
# $1: the preset; the rest: targets, all by default.
buildPreset() {
    local preset=$1 log="$project/build/$1.log" targets=()
    shift
    (($# == 0)) || targets=(--target "$@")
    useCompilerCache
    mkdir -p "$project/build"
    step "Building the $preset preset"
    (
        cd "$project"
        cmake --preset "$preset" >"$log" 2>&1 || {
            cat "$log" >&2
            die "configuring the $preset preset failed"
        }
        cmake --build --preset "$preset" "${targets[@]}" || die "building the $preset preset failed"
    )
}

# If the kernel randomises addresses with more bits than the thread sanitizer
# expects, restarts the calling script without randomised addresses.
# $@: the script's arguments.
ensurePlainAddresses() {
    local bits personality
    bits=$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 28)
    personality=$((16#$(cat /proc/self/personality 2>/dev/null || echo 0)))
    ((bits > 28 && (personality & 16#40000) == 0)) || return 0 # ADDR_NO_RANDOMIZE
    if setarch "$(uname -m)" -R true 2>/dev/null; then
        exec setarch "$(uname -m)" -R "$0" "$@"
    fi
}
