# shellcheck shell=bash
# An installation with the libraries that were built, and new ones to be put there.
LIBDIR=$TMPDIR/board/opt/corvane/lib
mkdir -p "$LIBDIR"
cp -RL "$BUILD/lib/corvane" "$LIBDIR"
cp "$LIBDIR"/corvane/devkit/*.so .
cp "$LIBDIR/corvane/libCorvane_plugin.so" ~
