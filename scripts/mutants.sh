#!/usr/bin/env bash
# mutants.sh [OPTION...] [N | N-M]...: measures the tests. Plants each fault of mutants.txt, or those of
# the rows N, in a copy of the sources, and looks whether the parts of the tests that it names notice.
# Ends with 1 when a fault survived.
#
#   --part PART    the rows that name this part of the tests, and no other part of them
#   --file TEXT    the rows whose file has this text in its path
#   --all          tries every part on what the named ones let through; it has survived all the same
#   --stop         ends at the first fault that survives
#   --in FOLDER    works in FOLDER/dak-mutants and leaves the builds there for the next time
#   --list         lists the rows
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# The parts of the tests, the cheap ones first: what ctest selects them by, the programs that they need.
PARTS=(
    'library: -L ^library$: library_tests'
    'platform: -L ^platform$: platform_posix_tests platform_sim_tests dak_library'
    'sim: -L ^sim$: sim_tests'
    'cli: -L ^cli$: cli_tests dak_cli dak-agent'
    'agent: -L ^agent$: agent_tests agent_folder_tests agent_transport_tests'
    'scenarios: -L ^scenarios$: scenario_tests seed_tests'
    'end_to_end: -L ^end_to_end$: end_to_end_tests'
    'windows: -R ^platform_windows_tests$: platform_windows_tests'
    'windows_cli: -L ^cli$: cli_tests'
    'windows_end_to_end: -L ^end_to_end$: end_to_end_tests'
)
declare -A SELECTION=() PROGRAMS=()
for part in "${PARTS[@]}"; do
    SELECTION[${part%%:*}]=$(cut -d: -f2 <<<"$part") PROGRAMS[${part%%:*}]=${part##*:}
done

only_part='' only_file='' all=no stop=no list=no work='' wanted=' '
while [[ $# -gt 0 ]]; do
    case $1 in
    --part) only_part=$2 && shift ;;
    --file) only_file=$2 && shift ;;
    --in) work=$2/dak-mutants && shift ;;
    --all) all=yes ;;
    --stop) stop=yes ;;
    --list) list=yes ;;
    *-*[0-9]) wanted+="$(seq -s ' ' "${1%-*}" "${1#*-}") " ;;
    *[0-9]) wanted+="$1 " ;;
    *) die "$1 is no option; its head says which there are" ;;
    esac
    shift
done
[[ -z $only_part || -n ${PROGRAMS[$only_part]:-} ]] || die "there is no part $only_part of the tests"

# The fields of all rows, each with a zero behind it. Ends the script where a row is not sound.
cd "$DAK_HOME"
rows=$(mktemp)
trap 'rm -f "$rows"' EXIT
perl -e '
    use strict;
    my $last;
    local $/ = "";
    while (my $block = <>) {
        my %row;
        for (split /\n/, $block) {
            if (/^#/) { next }
            elsif (s/^\|//) { $row{$last} .= "\n$_" }
            elsif (/^(file|fault|parts|find|put):(?: (.*))?$/) { $row{$last = $1} = $2 // "" }
            else { die "mutants.txt: what is this? $_\n" }
        }
        next unless %row;
        my $what = "mutants.txt, \"" . ($row{fault} // "?") . "\"";
        defined $row{$_} or die "$what: there is no $_\n" for qw(file fault parts find put);
        open my $file, "<", $row{file} or die "$what: $row{file}: $!\n";
        my $text = do { local $/; <$file> };
        my $count = () = $text =~ /\Q$row{find}/g;
        $count == 1 or die "$what: its text stands $count times in $row{file}\n";
        print "$row{$_}\0" for qw(file fault parts find put);
    }' scripts/mutants.txt >"$rows" || die "the table is not sound"
mapfile -d '' -t fields <"$rows"

# The rows that were asked for, by the index of their first field.
chosen=()
for ((i = 0; i < ${#fields[@]}; i += 5)); do
    n=$((i / 5 + 1))
    if [[ ($wanted == ' ' || $wanted == *" $n "*) && ${fields[i]} == *"$only_file"* ]] &&
        [[ -z $only_part || " ${fields[i + 2]} " == *" $only_part "* ]]; then
        chosen+=("$i")
        [[ $list == no ]] || say "$n  ${fields[i]}: ${fields[i + 1]} (${fields[i + 2]})"
    fi
    for part in ${fields[i + 2]}; do
        [[ -n ${PROGRAMS[$part]:-} ]] || die "row $n: there is no part $part of the tests"
    done
done
[[ $list == no ]] || exit 0

need_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}"
scratch=$(mktemp -d)
: "${work:=$scratch/copy}"
finish() {
    end_wine "$scratch"
    rm -rf "$scratch" "$rows"
}
trap finish EXIT
trap 'exit 130' INT TERM

# The copy: the sources as they are, beside the builds of the time before.
mkdir -p "$work"
find "$work" -mindepth 1 -maxdepth 1 ! -name 'build*' -exec rm -rf {} +
git ls-files -z | xargs -0 cp --parents --preserve=timestamps --target-directory "$work"
# What was built of these may have had a fault.
for ((i = 0; i < ${#fields[@]}; i += 5)); do
    touch "$work/${fields[i]}"
done
DAK_HOME=$work
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$work} CCACHE_NOHASHDIR=1 GTEST_FAIL_FAST=1
options=(-DDAK_BUILD_TESTS=ON -DDAK_BUILD_BENCH=OFF)
! command -v ccache >/dev/null || options+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

# run_part PART SECONDS: 0 when its tests pass, 1 when they do not, 3 when its programs cannot be built,
# and more when its tests take longer than that. They took so many seconds.
run_part() {
    local preset=release folder=$work/build status=0 start
    local -a ahead=() selection programs
    if [[ $1 == windows* ]]; then
        preset=windows folder=$work/build-windows ahead=("${IN_WINE[@]}")
    fi
    read -r -a selection <<<"${SELECTION[$1]}"
    read -r -a programs <<<"${PROGRAMS[$1]}"
    (cd "$work" && cmake --build --preset "$preset" --target "${programs[@]}") >"$scratch/build" 2>&1 ||
        return 3
    start=$SECONDS
    timeout --kill-after 10 "$2" "${ahead[@]}" ctest --test-dir "$folder" "${selection[@]}" --stop-on-failure \
        --output-on-failure --no-tests=error --parallel 2 >"$scratch/tests" 2>&1 </dev/null || status=$?
    took=$((SECONDS - start))
    [[ $status -lt 124 || $1 != windows* ]] || end_wine "$scratch"
    return $((status == 0 ? 0 : status < 124 ? 1 : status))
}

# A part must pass without a fault, and the time that it takes bounds its later runs.
declare -A bound=()
IN_WINE=()
prepare_part() {
    local -a flags=()
    local preset=release
    if [[ $1 == windows* ]]; then
        preset=windows
        need_packages "${WINDOWS_PACKAGES[@]}"
    elif command -v mold >/dev/null; then
        flags=(-DCMAKE_{EXE,SHARED}_LINKER_FLAGS=-fuse-ld=mold)
    fi
    (cd "$work" && cmake --preset "$preset" "${options[@]}" "${flags[@]}" >/dev/null)
    [[ $preset == release || ${#IN_WINE[@]} -gt 0 ]] || set_up_wine "$scratch"
    run_part "$1" 3600 || { cat "$scratch"/[bt]* >&2 && die "$1 fails without a fault"; }
    bound[$1]=$((60 + 5 * took))
}

# try_part INDEX PART: what becomes of the part with the row's fault in the copy, as run_part says it.
try_part() {
    local file=$work/${fields[$1]} status=0
    [[ -n ${bound[$2]:-} ]] || prepare_part "$2"
    cp --preserve=mode "$file" "$scratch/sound"
    FIND=${fields[$1 + 3]} PUT=${fields[$1 + 4]} perl -0777 -pi -e 's/\Q$ENV{FIND}/$ENV{PUT}/' "$file"
    run_part "$2" "${bound[$2]}" || status=$?
    cp --preserve=mode "$scratch/sound" "$file"
    return "$status"
}

# The first test that failed, as its program or ctest names it.
failed_test() {
    sed -n -e 's/^\[  FAILED  \] \([^ ,]*\).*/\1/p' -e 's/^\t *[0-9]* - \([^ ]*\) (.*/\1/p' "$scratch/tests" |
        head -n 1
}

caught=0 survived=0 broken=0
for i in "${chosen[@]}"; do
    row="$((i / 5 + 1))  ${fields[i]}: ${fields[i + 1]}"
    read -r -a parts <<<"${only_part:-${fields[i + 2]}}"
    verdict='' others=()
    for part in "${parts[@]}"; do
        status=0
        try_part "$i" "$part" || status=$?
        case $status in
        0) continue ;;
        3) verdict="DOES NOT BUILD" broken=$((broken + 1)) && cat "$scratch/build" >&2 ;;
        1) verdict="caught by $part ($(failed_test))" caught=$((caught + 1)) ;;
        *) verdict="caught by $part (it hangs)" caught=$((caught + 1)) ;;
        esac
        break
    done
    if [[ -z $verdict ]]; then
        verdict=SURVIVED survived=$((survived + 1))
        for part in "${PARTS[@]%%:*}"; do
            if [[ $all == yes && " ${parts[*]} " != *" $part "* ]]; then
                try_part "$i" "$part" || others+=("$part")
            fi
        done
    fi
    say "$row: $verdict${others:+, but ${others[*]} noticed}"
    [[ $stop == no || $survived == 0 ]] || break
done
say "${#chosen[@]} faults: $caught caught, $survived survived, $broken did not build"
[[ $survived == 0 && $broken == 0 ]]
