# shellcheck shell=bash
# A service, and a root certificate that the reader has.
# shellcheck source=tests/documents/serve.sh
. "$SOURCE/tests/documents/serve.sh"
serve
corvane-ke-peer make-certs "$TMPDIR/server"
cp "$TMPDIR/server/root.crt" .
