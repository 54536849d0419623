#!/usr/bin/env bash
# Measures whether times tell what they must not: where a tag, a padding or a token is wrong, or
# how a private key's decryption failed. In the manner of dudect (Reparaz, Balasch, Verbauwhede,
# 2017): calls with inputs of two kinds in random order, and Welch's t-test over their times.
#   tests/timing.sh [--samples N] [--private-samples N] [--only TEXT]
# By default a million calls of each, a hundred thousand of those with a private key's operation:
# some eight minutes; an hour with --private-samples 1000000.
#
# Prints a line for each comparison. Beyond |t| = 4.5 it is measured anew, three times in all; it
# leaks if |t| is beyond 4.5 each time. Two comparisons leak on purpose, to show that this is found.
# Exits with 1 if another one leaks, or if one of these two is not found.
#
# Works on a machine that is used by others, too. It decides no stage of ./test.sh, as times are the
# processor's as well; the statistics are tested there (welch_test).
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. cmake/build.sh
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}"

build=build/release
configure "$build" --preset release
build_targets "$build" timing_check
"$build/tests/timing_check" "$@" | column -t -s '|' -o ' | '
printf '%s, load %s\n' "$(sed -n 's/^model name\t*: //p' /proc/cpuinfo | head -n 1)" \
    "$(cut -d ' ' -f 1-3 /proc/loadavg)"
