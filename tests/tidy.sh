#!/usr/bin/env bash
# Runs clang-tidy, with the configurations in the tree, on all sources of what ships and the
# devkit, or on those below the folders that are named.
#   tests/tidy.sh [FOLDER]...
# corvane-host alone takes several minutes: what reads JSON is large after its headers.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh
. cmake/build.sh
packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}" clang clang-tidy

# The tool takes the compiler's options from its preset.
configure build/clang --preset clang
[ $# -gt 0 ] || set -- src devkit
git ls-files -z -- "${@/%//*.cpp}" |
    xargs -0 -P "$(nproc)" -n 3 clang-tidy --quiet -p build/clang
