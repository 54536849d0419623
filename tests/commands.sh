#!/usr/bin/env bash
# How the scripts behave on trees and in environments that were not always as they are now.
# Builds one small library only, in a copy of the checkout at a path with a blank.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}"

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
first="$scratch/first place" second="$scratch/second place"
log=$scratch/log
failed=0

# expect WHAT COMMAND...: one fact; the command's output only if it does not hold.
expect() {
    if "${@:2}" >"$log" 2>&1; then
        echo "ok      $1"
    else
        echo "FAILED  $1"
        tail -n 20 "$log"
        failed=$((failed + 1))
    fi
}

# ends_with STATUS COMMAND...
ends_with() {
    local status=0
    "${@:2}" || status=$?
    [ "$status" -eq "$1" ]
}

# says TEXT COMMAND...: fails, and says so.
says() {
    local text=$1 output
    shift
    if output=$("$@" 2>&1); then
        echo "succeeded: $output"
        return 1
    fi
    echo "$output"
    [[ $output == *"$text"* ]]
}

# names TEXT COMMAND...: succeeds, and says so.
names() {
    local text=$1 output
    shift
    output=$("$@" 2>&1) || return 1
    echo "$output"
    [[ $output == *"$text"* ]]
}

# in_tree TREE COMMAND: in a shell that builds as the scripts do.
in_tree() {
    (cd "$1" && shift && bash -c "set -euo pipefail; . cmake/build.sh; $*")
}

# What run.sh and test.sh do, with one library for all of theirs.
small=build/release/lib/corvane/devkit/libCorvaneParamsModule.so
run_configured='is_configured build/release || configure build/release --preset release -DCORVANE_TESTS=OFF'
as_run="$run_configured; build_targets build/release CorvaneParamsModule"
as_test='configure build/release --preset release && build_targets build/release CorvaneParamsModule'

has_tests() { in_tree "$1" "ctest --test-dir build/release -N" | grep '^  Test *#1:'; }
# Whether the library of a tree was made of that tree's own sources.
is_own() { grep -q "mark of $1" "$1/$small"; }
mark() { echo "extern const char mark[]; const char mark[] = \"mark of $1\";" >>"$1/devkit/params/params_module.cpp"; }
uses() { grep -q "\"command\": \"[^ ]*/$2 " "$1/build/release/compile_commands.json"; }

mkdir "$first"
git ls-files -z --cached --others --exclude-standard | xargs -0 cp --parents -t "$first"
sed -i 's/-fvisibility=hidden//' "$first/devkit/params/CMakeLists.txt"

for script in run.sh test.sh; do
    expect "$script --help explains" ends_with 0 "$first/$script" --help
    for words in sevre "all of it" "--help me" "-x"; do
        # shellcheck disable=SC2086  # several words on purpose
        expect "$script $words is refused" ends_with 2 "$first/$script" $words
    done
done
expect "refused words build nothing" test ! -e "$first/build"
for words in ./test.sh docs/ corvane-host CORVANE_NO_INSTALL; do
    expect "run.sh --help names $words" names "$words" "$first/run.sh" --help
done

# A system of another kind: all programs of this one but dpkg, apt-get that leaves a trace, and
# cmake that only tells how far it came.
other=$scratch/other
mkdir "$other"
IFS=: read -ra folders <<<"$PATH"
for folder in "${folders[@]}"; do
    find "$folder/" -maxdepth 1 -perm /111 ! -name 'dpkg*' ! -name 'apt*' -exec ln -sft "$other" {} +
done 2>/dev/null
rm -f "$other/cmake"
printf '#!/bin/sh\necho "as far as cmake"\nexit 1\n' >"$other/cmake"
printf '#!/bin/sh\n: >"%s/installed"\n' "$scratch" >"$other/apt-get"
chmod +x "$other/cmake" "$other/apt-get"
elsewhere() { PATH=$other CORVANE_NO_INSTALL='' "$@"; }
elsewhere_as_is() { PATH=$other CORVANE_NO_INSTALL=1 "$@"; }

for script in run.sh test.sh; do
    for words in "no dpkg" CORVANE_NO_INSTALL=1 "program  ninja" "library  CLI11" "CMake OpenSSL"; do
        expect "$script without dpkg says $words" says "$words" elsewhere "$first/$script"
    done
    expect "$script without dpkg, told to install nothing, goes on" \
        says "as far as cmake" elsewhere_as_is "$first/$script"
done
expect "test.sh without dpkg says GoogleTest" says "library  GoogleTest" elsewhere "$first/test.sh"
rm -rf "$first/build"

install=$first/packaging/install-packages.sh
silent() { [ -z "$("$@" 2>&1)" ]; }
expect "what is there is not named" \
    silent elsewhere_as_is "$install" "${build_packages[@]}" "${test_packages[@]}"
rm "$other/ninja"
expect "a missing program is named" names "missing  program  ninja" \
    elsewhere_as_is "$install" "${build_packages[@]}"
expect "missing libraries are named" names "missing  library  OpenSSL 3 (pkg-config openssl" \
    env CXX="g++ -nostdinc" CORVANE_NO_INSTALL=1 "$install" "${build_packages[@]}"
expect "nothing is installed where that is not wanted" names "missing  program  corvane-nothing" \
    elsewhere_as_is "$install" corvane-nothing
expect "also where there is dpkg" ends_with 0 env CORVANE_NO_INSTALL=1 "$install" corvane-nothing
expect "no installer was called" test ! -e "$scratch/installed"

mark "$first"
expect "a first build" in_tree "$first" "$as_run"
expect "its library is there" is_own "$first"
expect "the tests come after a run" in_tree "$first" "$as_test"
expect "they are found" has_tests "$first"
expect "a run after the tests" in_tree "$first" "$as_run"
expect "the tests are still there" has_tests "$first"

cp -R "$first" "$second"
sed -i '$d' "$second/devkit/params/params_module.cpp"
mark "$second"
expect "a copied tree builds" in_tree "$second" "$as_run"
expect "it builds its own sources" is_own "$second"
expect "the original stays" is_own "$first"

rm -rf "$second"
mv "$first" "$second"
sed -i '$d' "$second/devkit/params/params_module.cpp"
mark "$second"
expect "a moved tree builds" in_tree "$second" "$as_test"
expect "it builds its own sources" is_own "$second"

expect "by g++ until told otherwise" uses "$second" c++
export CC=clang CXX=clang++
expect "another compiler in CC and CXX" in_tree "$second" "$as_run"
expect "it is used" uses "$second" clang++
unset CC CXX
expect "and no longer" in_tree "$second" "$as_test"
expect "it is not used then" uses "$second" c++

rm "$second/build/release/build.ninja"
expect "after a configuration that was interrupted" in_tree "$second" "$as_run"
# The whole group: timeout is its leader.
in_tree "$second" "timeout -s KILL 0.7 bash -c \
    '. cmake/build.sh; rm -rf build; configure build/release --preset release'" 2>/dev/null || true
expect "after one that was killed" in_tree "$second" "$as_test"
expect "with its sources" is_own "$second"

# A build tree of another user. Root can write anything but a file system for reading.
if [ "$(id -u)" -eq 0 ]; then
    chmod 755 "$scratch"
    as_other=(setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/nonexistent)
else
    chmod -R a-w "$second/build"
    as_other=()
fi
echo "what an earlier run printed" >"$second/build/release/build.log"
for way in "$run_configured; build_targets build/release all" "configure build/release --preset release"; do
    expect "a build folder that cannot be written is named" says "cannot be written" \
        "${as_other[@]}" bash -c "cd '$second'; set -euo pipefail; . cmake/build.sh; $way"
    expect "and nothing else is shown" test -z "$(grep earlier "$log")"
done
[ "$(id -u)" -eq 0 ] || chmod -R u+w "$second/build"

echo "$failed facts do not hold"
[ "$failed" -eq 0 ]
