#!/usr/bin/env bash
# Measures throughput over payload size and draws docs/throughput.svg.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. bench/build.sh
build_programs ratios
GLIBC_TUNABLES=$warm_heap "$build/bench/ratios" throughput | tee "$build/throughput.tsv"
python3 bench/chart.py "$build/throughput.tsv" "GB/s of payload" >docs/throughput.svg
