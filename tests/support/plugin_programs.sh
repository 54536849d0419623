# shellcheck shell=bash
# Sourced by scripts that run the tests of the plug-in's units.

# plugin_programs BUILD [LABEL]: their names, or those of another label, from a build tree that is
# configured.
plugin_programs() {
    local programs
    programs=$(ctest --test-dir "$1" -N -L "^${2-unit}\$" | sed -n 's/^ *Test *#[0-9]*: //p')
    [ -n "$programs" ] || {
        echo "$1 has no tests with the label ${2-unit}" >&2
        return 1
    }
    echo "$programs"
}
