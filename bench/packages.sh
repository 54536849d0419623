# shellcheck shell=bash disable=SC2034  # used where it is sourced
# The Debian 12 packages behind the measurements, beside those of packaging/packages.sh;
# sourced by the scripts here.

bench_packages=(libbenchmark-dev softhsm2 libp11-kit-dev python3)
serve_packages=(curl python3)
serve_load_packages=(wrk nginx-light procps)
