# Shared by the scripts, which source it first. It sets the shell's options, goes to the top folder of
# the repository and defines the functions that several scripts need.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

PATH=$PATH:/usr/sbin # mosquitto and debootstrap are there, which is not in the PATH of every user

say() { printf '%5ss  %s\n' "$SECONDS" "$*"; }

fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# quietly COMMAND...: prints its output only if it fails, and then ends the script.
quietly() {
    local output
    if ! output=$("$@" 2>&1); then
        printf '%s\n' "$output" >&2
        fail "failed: $*"
    fi
}

as_root() {
    if ((EUID == 0)); then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        fail "please run this as root, or install sudo"
    fi
}

# at_exit FUNCTION: calls it once when the script ends, also when a signal ends it.
at_exit() {
    # shellcheck disable=SC2064 # the name is known now
    trap "$1" EXIT
    trap 'exit 129' HUP
    trap 'exit 130' INT
    trap 'exit 143' TERM
}

# build PRESET [TARGET...]
build() {
    cmake --preset "$1" >/dev/null && cmake --build --preset "$1" ${2:+--target "${@:2}"}
}

# --- a broker ----------------------------------------------------------------------------------

broker_pid=
broker_lines=() # more lines of its configuration

# start_broker FOLDER [PORT]: on 127.0.0.1, on that port or on any free one. Sets `broker_port`,
# `broker_pid` and `broker_output`, the descriptor from which its messages can be read. Call
# stop_broker at the end.
start_broker() {
    local try
    for try in {1..20}; do
        broker_port=${2:-$((20000 + RANDOM % 12000))}
        if try_broker "$1"; then
            return
        fi
        stop_broker
        [[ -z ${2-} ]] || return 1
    done
    fail "no broker started on $try different ports"
}

try_broker() {
    local line
    printf '%s\n' "listener $broker_port 127.0.0.1" "allow_anonymous true" "persistence false" \
        "user $(id -un)" "log_dest stderr" "log_timestamp false" "log_type error" \
        "log_type information" "log_type subscribe" "${broker_lines[@]}" >"$1/mosquitto.conf"
    # A check for a free port before the start would be a race: the broker reports whether it got it.
    exec {broker_output}< <(exec mosquitto -c "$1/mosquitto.conf" 2>&1)
    broker_pid=$!
    while IFS= read -r -t 30 -u "$broker_output" line; do
        if [[ $line == *" running" ]]; then
            return
        fi
    done
    return 1
}

stop_broker() {
    [[ -n $broker_pid ]] || return 0
    kill -KILL "$broker_pid" 2>/dev/null || true
    wait "$broker_pid" 2>/dev/null || true
    broker_pid=
}

# --- minimal Debian systems in a folder -----------------------------------------------------------

# SUITE and MIRROR select the Debian release and where it comes from; the default is this machine's.
debian_suite() {
    # shellcheck source=/dev/null
    echo "${SUITE:-$(. /etc/os-release && echo "$VERSION_CODENAME")}"
}
debian_mirror() {
    echo "${MIRROR:-$(apt-get indextargets --format '$(SITE)' 'Created-By: Packages' | head -n 1)}"
}

# The package lists of a release in development are valid for some days only. A mirror may be older, and
# so may an archive in build/roots.
any_age='Acquire::Check-Valid-Until "false";'

# make_root FOLDER: a minimal Debian with nothing else installed. It is unpacked from an archive in
# build/roots, which the first call makes; delete the archive to get newer packages.
make_root() {
    local suite mirror archive include=() script=()
    suite=$(debian_suite)
    mirror=$(debian_mirror)
    archive=build/roots/$suite-$(dpkg --print-architecture).tar
    mkdir -p build/roots "$1"
    if [[ ! -e $archive ]]; then
        [[ $mirror != https:* ]] || include=(--include=ca-certificates)
        # A release that is younger than debootstrap is made as the others are.
        [[ -e /usr/share/debootstrap/scripts/$suite ]] || script=(/usr/share/debootstrap/scripts/sid)
        quietly as_root debootstrap --variant=minbase "${include[@]}" "$suite" "$1" "$mirror" "${script[@]}"
        as_root tar -C "$1" -cf "$archive.new" .
        mv "$archive.new" "$archive"
    else
        as_root tar -C "$1" -xf "$archive"
    fi
    as_root chmod 755 "$1" # it becomes the folder /, which apt's own user reads
    echo "$any_age" | as_root tee "$1/etc/apt/apt.conf.d/any-age" >/dev/null
    as_root cp -L /etc/resolv.conf "$1/etc/resolv.conf"
    echo '127.0.0.1 localhost' | as_root tee "$1/etc/hosts" >/dev/null
}

# in_root FOLDER COMMAND...: runs it there as root, in process and mount name spaces of its own that
# end with it, with terminals and this machine's proxy settings.
in_root() {
    local root=$1 pass=() name
    shift
    for name in http_proxy https_proxy no_proxy; do
        [[ -z ${!name-} ]] || pass+=("$name=${!name}")
    done
    as_root unshare --mount --pid --fork --kill-child --mount-proc="$root/proc" \
        sh -c 'mount -t devpts devpts "$0/dev/pts" && exec chroot "$0" "$@"' "$root" \
        env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root \
        LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "${pass[@]}" "$@" &
    wait "$!" # a signal interrupts this, but not a command in the foreground
}

# install_in_root FOLDER PACKAGE...
install_in_root() { quietly in_root "$1" apt-get -q -y --no-install-recommends install "${@:2}"; }

# remove_root FOLDER: ends what runs there and deletes it.
remove_root() {
    # unshare ignores gentler signals.
    as_root pkill -KILL -f -- "--mount-proc=$1/proc" || true
    wait || true
    as_root rm -rf --one-file-system "$1" # never into something that is still mounted there
}

# --- headers and libraries of another Debian in a folder ------------------------------------------

# unpacked_debian FOLDER ARCHITECTURE PACKAGE...: these packages of SUITE, and all that they depend on,
# unpacked in FOLDER/root; the packages are beside it. Nothing of them is installed or run. Does nothing
# if the same is there already. Needs no root.
unpacked_debian() {
    local folder=$1 architecture=$2 contents work
    contents="$(debian_suite) $(debian_mirror) ${*:2}"
    [[ $(cat "$folder/made-of" 2>/dev/null) != "$contents" ]] || return 0
    echo "unpacking packages of Debian $(debian_suite), $architecture, from $(debian_mirror)"
    mkdir -p "$folder"
    work=$(realpath "$folder").new
    rm -rf "$work"
    mkdir -p "$work"
    download_packages "$work" "$architecture" "${@:3}"
    unpack_packages "$work"
    echo "$contents" >"$work/made-of"
    rm -rf "$folder"
    mv "$work" "$folder"
}

# An apt with its own package database, so that this machine's stays as it is: a foreign architecture
# added to it could not be installed while this machine and the mirror differ by a security update.
download_packages() {
    local work=$1 architecture=$2 apt=$1/apt
    mkdir -p "$apt"/etc/apt/{apt.conf.d,preferences.d,sources.list.d,trusted.gpg.d} \
        "$apt"/var/lib/{apt/lists/partial,dpkg} "$apt"/var/cache/apt/archives/partial "$work/packages"
    touch "$apt/var/lib/dpkg/status"
    echo "deb [arch=$architecture signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
        "$(debian_mirror) $(debian_suite) main" >"$apt/etc/apt/sources.list"
    cat >"$work/apt.conf" <<EOF
Dir "$apt/";
Dir::State::status "$apt/var/lib/dpkg/status";
APT::Architecture "$architecture";
APT::Architectures { "$architecture"; };
APT::Install-Recommends "false";
$any_age
APT::Sandbox::User "$(id -un)";
Acquire::Languages "none";
EOF
    APT_CONFIG=$work/apt.conf apt-get -q update
    APT_CONFIG=$work/apt.conf apt-get -q -y --download-only install "${@:3}"
    mv "$apt"/var/cache/apt/archives/*.deb "$work/packages"
    rm -rf "$apt" "$work/apt.conf"
}

unpack_packages() {
    local root=$1/root directory package link
    # The linker's scripts and the loader use these short names.
    for directory in bin lib lib64 sbin; do
        mkdir -p "$root/usr/$directory"
        ln -s "usr/$directory" "$root/$directory"
    done
    for package in "$1"/packages/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -x --keep-directory-symlink -C "$root"
    done
    # A link to /lib/... means the target's file, not this machine's.
    while IFS= read -r link; do
        ln -sfn "$(realpath -m --relative-to="${link%/*}" "$root$(readlink "$link")")" "$link"
    done < <(find "$root" -type l -lname '/*')
}

# unpacked_mosquitto21: libmosquittopp 2.1 and its broker, which a later Debian has, for the presets that
# are named after it. Programs run with the C library of that Debian, so the folder has what CMake, the
# linker and the loader search.
unpacked_mosquitto21() {
    local folder=$PWD/build/mosquitto21-libraries
    SUITE=forky unpacked_debian "$folder" "$(dpkg --print-architecture)" \
        libmosquittopp-dev mosquitto systemd-standalone-sysusers
    ln -sfn root/usr/include "$folder/include"
    (cd "$folder" && ln -sfn root/usr/lib/*-linux-gnu* lib && ln -sf lib/ld-linux-*.so.* loader)
    ldconfig -n "$folder/lib" # makes links that the installation of a package makes
    mkdir -p "$folder/bin"
    printf '%s\n' '#!/bin/sh' \
        "exec '$folder/loader' --library-path '$folder/lib' '$folder/root/usr/sbin/mosquitto' \"\$@\"" \
        >"$folder/bin/mosquitto"
    chmod +x "$folder/bin/mosquitto"
}
