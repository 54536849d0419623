# shellcheck shell=bash
# For what is read before a document's first block: a service that ends with the document's shell.

# serve [OPTION]...: returns when it is ready. Its token is where it makes one for its user.
serve() {
    corvane-host serve --listen "127.0.0.1:$PORT" --workers 2 "$@" >"$TMPDIR/service" 2>&1 &
    service=$!
    trap 'kill $service; wait $service' EXIT
    until curl --fail "http://127.0.0.1:$PORT/readyz" >"$TMPDIR/ready" 2>&1; do
        kill -0 $service || { cat "$TMPDIR/service" && exit 1; }
        sleep 0.05
    done
}
