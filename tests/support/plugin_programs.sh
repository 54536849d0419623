# shellcheck shell=bash disable=SC2034  # used where it is sourced
# The test programs of the plug-in's own units, in front of the doubles; sourced by scripts
# that start in the checkout's root. Not among them: what tests the build (exports,
# headers), the devkit, or the plug-in in front of the devkit.

plugin_programs=()
for source in tests/{base64,base64_kernels,base64_stream,charset,text,log,entry,dispatch}_test.cpp \
    tests/{params_binding,param_maps,engine_loader,engine_wrappers}_test.cpp \
    tests/handlers_*_test.cpp; do
    [ -e "$source" ] || {
        echo "there is no $source" >&2
        exit 2
    }
    source=${source#tests/}
    plugin_programs+=("${source%.cpp}")
done
