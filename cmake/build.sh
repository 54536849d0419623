# shellcheck shell=bash
# Configuring and building, for the scripts that do; sourced at the top of the checkout, with
# `set -o pipefail`.

# Whether a build tree is ready for this checkout and for the compilers and flags of the
# environment. CMake keeps those of its first run, and ninja the paths of the sources: a tree
# that came along with a copy of the checkout would compile the files of the original.
is_configured() {
    local build=$1 cache=$1/CMakeCache.txt
    [ -f "$build/build.ninja" ] &&
        [ "$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")" -ef . ] &&
        grep -qxF "CORVANE_MADE_BY:STRING=CC=${CC-} CXX=${CXX-} CFLAGS=${CFLAGS-} CXXFLAGS=${CXXFLAGS-} LDFLAGS=${LDFLAGS-}" "$cache"
} 2>/dev/null

# configure BUILD [CMAKE OPTION]...: configures a build tree, anew if it was made elsewhere or
# by other compilers, or if that was interrupted. CMake's output only if it fails.
configure() {
    local build=$1 log=$1/configuration.log
    if ! { mkdir -p "$build" && [ -w "$build" ]; } 2>/dev/null; then
        echo "$build cannot be written; is it another user's? It can be removed at any time." >&2
        return 1
    fi
    if [ -e "$build/CMakeCache.txt" ] && ! is_configured "$build"; then
        echo "$build is of another folder or compiler, or incomplete: building anew" >&2
        rm -rf "$build"
        mkdir "$build"
    fi
    rm -f "$log"
    if ! cmake -B "$build" "${@:2}" >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        return 1
    fi
}

# build_targets BUILD TARGET...: shows how far it is, and the compiler's output only if it fails.
build_targets() {
    local log=$1/build.log
    if ! { [ -w "$1" ] && rm -f "$log"; } 2>/dev/null; then
        echo "$1 cannot be written; is it another user's? It can be removed at any time." >&2
        return 1
    fi
    if ! NINJA_STATUS='[%f/%t] ' cmake --build "$1" --target "${@:2}" 2>&1 | tee "$log" | show_progress; then
        tail -n 60 "$log" >&2
        return 1
    fi
}

# Reads ninja's output. On a terminal one line counts; elsewhere there is a line now and then.
show_progress() {
    local line last=$SECONDS on_terminal=false
    [ ! -t 2 ] || on_terminal=true
    while IFS= read -r line; do
        [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]] || continue
        line="building: ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}"
        if $on_terminal; then
            printf '\r\033[K%s' "$line" >&2
        elif [ $((SECONDS - last)) -ge 20 ]; then
            echo "$line" >&2
            last=$SECONDS
        fi
    done
    ! $on_terminal || printf '\r\033[K' >&2
}
