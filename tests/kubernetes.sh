#!/usr/bin/env bash
# The manifests of packaging/kubernetes, without a cluster: each document against Kubernetes'
# schemas, against the others and against the host; and the pod's command with its probes.
# Usage: tests/kubernetes.sh [BUILD_DIRECTORY]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

packaging/install-packages.sh nodejs openssl
# Other makers' nodejs brings npm along and does not go with Debian's.
command -v npm >/dev/null || packaging/install-packages.sh npm

CORVANE_BUILD=$(realpath "${1-build/release}")
export CORVANE_BUILD
cd tests/kubernetes
npm ci --silent --no-audit --no-fund
exec node --test --test-reporter=spec manifests.test.mjs pod.test.mjs
