# shellcheck shell=bash
# Sourced by scripts that run the tests of the plug-in's units.

# plugin_programs BUILD: their names, from a build tree that is configured.
plugin_programs() {
    local programs
    programs=$(ctest --test-dir "$1" -N -L '^unit$' | sed -n 's/^ *Test *#[0-9]*: //p')
    [ -n "$programs" ] || {
        echo "$1 has no tests of units" >&2
        return 1
    }
    echo "$programs"
}
