#!/usr/bin/env bash
# The console's tests: its functions in Node, its page in headless Chromium and in Firefox
# against a running host. Usage: tests/console.sh [BUILD_DIRECTORY]; pictures end up in its console-screenshots.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. packaging/packages.sh

packaging/install-packages.sh "${browser_packages[@]}"
# Other makers' nodejs brings npm along and does not go with Debian's.
command -v npm >/dev/null || packaging/install-packages.sh npm

CORVANE_BUILD=$(realpath "${1-build/release}")
export CORVANE_BUILD
cd tests/console
npm ci --silent --no-audit --no-fund
exec node --test --test-concurrency=2 --test-reporter=spec values.test.mjs texts.test.mjs \
    openapi.test.mjs console.test.mjs request.test.mjs files.test.mjs waiting.test.mjs \
    handover.test.mjs flows.test.mjs orientation.test.mjs everybody.test.mjs sign_in.test.mjs \
    token.test.mjs fields.test.mjs search.test.mjs refusals.test.mjs layout.test.mjs firefox.test.mjs
