#!/usr/bin/env bash
# demo.sh [FOLDER]: copies a folder to a device and back, and compares. The device is an agent on
# this computer, with an empty folder as its file system; nothing outside a temporary folder and
# build/ is touched.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

[[ $# -le 1 ]] || die "usage: demo.sh [FOLDER]"
if [[ $# == 1 && ! -d $1 ]]; then
    die "$1 is not a folder"
fi

# Short, for a socket's path may have no more than 107 bytes.
work=$(mktemp -d /tmp/dak-demo.XXXXXX)
agent=
clean_up() {
    if [[ -n $agent ]]; then
        kill "$agent" 2>/dev/null || true
        wait "$agent" 2>/dev/null || true
    fi
    rm -rf "$work"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

make_sample() {
    mkdir -p "$1/letters/Älteres" "$1/数据"
    printf 'Dear reader,\nthis came over the link.\n' >"$1/letters/hello.txt"
    printf 'Grüße\n' >"$1/letters/Älteres/Grüße aus Köln.txt"
    printf '漢字かな交じり文\n' >"$1/数据/文書 😀.txt"
    : >"$1/empty.dat"
    # More than five windows of packages.
    head -c 3000000 /dev/urandom >"$1/数据/random.bin"
    touch -d '2001-09-09 01:46:40.1234567 UTC' "$1/letters/hello.txt"
    touch -d '1999-12-31 23:59:59 UTC' "$1/empty.dat"
}

# Path, size and time of every file. A copy keeps times to 100 ns.
list_files() {
    (cd "$1" && find . -type f -printf '%P\t%s\t%T@\n' | sed -E 's/(\.[0-9]{7})[0-9]*$/\1/' |
        LC_ALL=C sort)
}

same_bytes() {
    local name
    while IFS= read -r -d '' name; do
        cmp -- "$1/$name" "$2/$name" || return 1
    done < <(cd "$1" && find . -type f -print0)
}

wait_for_device() {
    local tries
    for ((tries = 0; tries < 20; ++tries)); do
        kill -0 "$agent" 2>/dev/null || break
        if "$DAK_HOME/build/dak" status --quiet 2>/dev/null; then
            return
        fi
        sleep 0.2
    done
    cat "$work/agent.log" >&2
    die "the agent did not attach"
}

headline "Building the library, the agent and the command"
need_packages "${BUILD_PACKAGES[@]}"
configure release
build release dak_library dak-agent dak_cli

if [[ $# == 1 ]]; then
    source_folder=$(cd "$1" && pwd)
else
    source_folder=$work/sample
    make_sample "$source_folder"
fi
name=$(basename "$source_folder")
[[ $name != / ]] || die "give a folder, not the root"

headline "Attaching a device: an agent that plays one, with an empty folder as its file system"
export DAK_DEVICE_DIR=$work/devices
mkdir "$work/device" "$work/back"
"$DAK_HOME/build/dak-agent" --root "$work/device" --name demo >"$work/agent.log" 2>&1 &
agent=$!
wait_for_device
cat "$work/agent.log"

headline "Copying to the device:  dak push $name /"
(cd "$(dirname "$source_folder")" && "$DAK_HOME/build/dak" push "./$name" /) ||
    die "not all of it could be copied; what was left out is named above"

headline "Copying back:  dak pull /$name back"
(cd "$work" && "$DAK_HOME/build/dak" pull "/$name" back)

headline "Comparing what came back with what was sent"
list_files "$source_folder" >"$work/sent.list"
list_files "$work/back/$name" >"$work/back.list"
diff "$work/sent.list" "$work/back.list" || die "names, sizes or times differ"
same_bytes "$source_folder" "$work/back/$name" || die "the bytes differ"
say "$(wc -l <"$work/sent.list") files went to the device and came back: the same names, sizes," \
    "times and bytes."
