#!/usr/bin/env bash
# Builds and runs the tests.
#   ./test.sh       the fast suite
#   ./test.sh all   also static analysis, Clang, sanitizers, valgrind, 64-bit ARM in
#                   emulation, coverage, mistakes drawn by lot, fuzzers, a minute of load, the
#                   console in a browser, three hosts behind balancers, clients in six
#                   languages, the manifests for Kubernetes, promtool, the packages for both
#                   architectures (this one wants root)
#   ./test.sh --help  these lines
#
# Debian packages that are missing are installed. With CORVANE_NO_INSTALL=1 in the environment
# nothing is: what is missing is named, and the tests go on with what is there.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
. packaging/packages.sh
. cmake/build.sh

case $#/${1-} in
0/ | 1/all) ;;
1/--help | 1/-h)
    sed -n '2,/^set /s/^# \{0,1\}//p' test.sh
    exit
    ;;
*)
    sed -n '2,/^set /s/^# \{0,1\}//p' test.sh >&2
    exit 2
    ;;
esac

passed=0
failed=()

# Seconds that processors have spent on this script's children which have ended, and on theirs.
processor_seconds() {
    local fields
    read -ra fields <"/proc/$$/stat"  # the script's name, in the second, has no blanks
    echo $(((fields[15] + fields[16]) / $(getconf CLK_TCK)))
}

# Runs one stage and goes on whatever becomes of it.
stage() {
    local name=$1 start=$SECONDS processor word
    processor=$(processor_seconds)
    shift
    printf '\n== %s\n' "$name"
    if "$@"; then
        passed=$((passed + 1))
        word='passed in'
    else
        failed+=("$name")
        word='FAILED after'
    fi
    printf '== %s: %s %d s, %d s of processor time\n' "$name" "$word" $((SECONDS - start)) \
        $(($(processor_seconds) - processor))
}

# Runs a command and shows its output only if it fails.
quietly() {
    local log=build/$1.log
    rm -f "$log"
    if ! "${@:2}" >"$log" 2>&1; then
        tail -n 60 "$log"
        return 1
    fi
}

# Configures a preset and builds it, or only the targets that are named behind it.
build_preset() {
    configure "build/$1" --preset "$1" && build_targets "build/$1" "${@:2}"
}

# Twice as many programs at once as there are processors: many wait, for servers and for each other.
# A quarter of an hour is for one that hangs.
run_ctest() {
    ctest --test-dir "build/$1" --output-on-failure --no-tests=error --timeout 900 \
        -j $((2 * $(nproc))) "${@:2}"
}

# Builds a preset and runs all of its tests, or those that ctest's options behind it choose.
tests_of() {
    build_preset "$1" all && run_ctest "$@"
}

# The same, but tests that are only clients of programs are the first stage's.
programs_of() {
    configure "build/$1" --preset "$1" "-DCORVANE_CLIENTS=$PWD/build/release" && tests_of "$@"
}

formatting() {
    git ls-files -z '*.cpp' '*.h' '*.c' | xargs -0 clang-format --dry-run -Werror
}

scripts() {
    git ls-files -z '*.sh' '*.bash' .ci/run | xargs -0 shellcheck --external-sources --severity=warning
}

# What ships and the devkit. clang-tidy takes too long for corvane-host: tests/tidy.sh looks at
# all of it.
static_analysis() {
    cppcheck -j "$(nproc)" --quiet --std=c++17 --language=c++ --library=posix --library=gnu \
        --enable=warning,performance,portability --suppressions-list=.cppcheck-suppressions \
        --error-exitcode=1 -I src -I devkit src devkit &&
        quietly clang-tidy tests/tidy.sh src devkit/engine devkit/params devkit/peer
}

# What looks at documents, at shells and at the tree itself, which is the same in every build.
written='^(completion|documents|man_pages|mutants|reference|rooms|third_party)_test$'

# What compares texts that are the same on every processor, by starting corvane-host for each.
texts='^(host_catalogue|host_explain|host_help|known_names|mistakes)_test$'

# All other programs but the one that compiles headers, which no sanitizer sees.
address_sanitizer() {
    programs_of asan -E "$written|^headers_test$"
}

# An emulated processor makes its codes for pointers by a function that is quick to emulate.
aarch64() {
    QEMU_CPU=max,pauth-impdef=on programs_of aarch64 -E "$written|$texts"
}

# Where threads meet: the parameter module, the engine, requests at once, HTTP.
thread_sanitizer() {
    local tests=(concurrency_test engine_threads_test engine_key_exchange_test serve_threads_test)
    build_preset tsan "${tests[@]}" && run_ctest tsan -R "^($(IFS='|' && echo "${tests[*]}"))$"
}

# The programs that run against the test doubles; those with real cryptography would
# only test its library.
valgrind_doubles() {
    local programs
    programs=$(ctest --test-dir build/release -L doubles -N | sed -n 's/^ *Test *#[0-9]*: //p')
    [ -n "$programs" ] && xargs -P "$(nproc)" -I '{}' \
        valgrind --quiet --error-exitcode=99 --leak-check=full \
        --errors-for-leak-kinds=definite,indirect build/release/tests/{} --gtest_brief=1 \
        <<<"$programs"
}

# Others on each day. The devkit's tests wait half of their time.
mistakes_by_lot() {
    local well=true
    tests/mutate.sh plugin 10 >build/mutate.log 2>&1 &
    tests/mutate.sh devkit 10 || well=false
    wait $! || well=false
    cat build/mutate.log
    $well
}

soak() {
    build/release/tests/soak --seconds 60 --threads "$(nproc)"
}

# Packages are made of what is committed, in systems of their own.
packages() {
    if [ "$(id -u)" -eq 0 ]; then
        tests/packages.sh
    else
        sudo --preserve-env=CI tests/packages.sh
    fi
}

# The host's server as this build made it.
abuse() {
    HOST=build/release/bin/corvane-host bench/serve_abuse.sh 30
}

# The console in a browser, three hosts behind the balancers that are configured in packaging/, and
# others wait half of their time, for each other's processes, so they run beside the load.
load_and_what_waits() {
    local name well=true jobs=()
    local -x HOST=build/release/bin/corvane-host
    for name in console scale clients kubernetes prometheus; do
        quietly $name tests/$name.sh &
        jobs+=($!)
    done
    soak || well=false
    for name in "${jobs[@]}"; do
        wait "$name" || well=false
    done
    tail -n 9 build/{console,scale,clients,kubernetes,prometheus}.log
    $well
}

packaging/install-packages.sh "${build_packages[@]}" "${test_packages[@]}"
stage "tests" tests_of release
if [ "${1-}" = all ]; then
    packaging/install-packages.sh "${all_packages[@]}" "${aarch64_packages[@]}" \
        "${browser_packages[@]}" "${prometheus_packages[@]}" "${balancer_packages[@]}" \
        "${client_packages[@]}"
    # Not by two at once, who would wait for dpkg's lock. Other makers' nodejs brings npm along.
    command -v npm >/dev/null || packaging/install-packages.sh npm
    stage "formatting" formatting
    stage "scripts" scripts
    stage "scripts in other places" tests/commands.sh
    stage "static analysis" static_analysis
    stage "coverage, by Clang" tests/coverage.sh
    stage "address and undefined behaviour sanitizers" address_sanitizer
    stage "thread sanitizer" thread_sanitizer
    stage "valgrind" valgrind_doubles
    stage "Base64 kernels" tests/kernels.sh
    stage "64-bit ARM" aarch64
    stage "mistakes by lot" mistakes_by_lot
    stage "fuzzers" fuzz/run.sh 10
    stage "load, console, balancers, clients, Kubernetes, Prometheus" load_and_what_waits
    stage "abuse of the host's server" abuse
    stage "packages" packages
fi

printf '\n'
for name in "${failed[@]}"; do
    echo "FAILED: $name"
done
echo "in $((SECONDS / 60)) min $((SECONDS % 60)) s"
echo "stages: $passed passed, ${#failed[@]} failed"
[ ${#failed[@]} -eq 0 ]
