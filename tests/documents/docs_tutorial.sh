# shellcheck shell=bash
# What `./run.sh serve` in the reader's second terminal does.
# shellcheck source=tests/documents/serve.sh
. "$SOURCE/tests/documents/serve.sh"
serve
