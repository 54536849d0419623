# The Debian 12 packages behind the measurements, beside those of packaging/packages.sh;
# sourced by the scripts here.

bench_packages=(libbenchmark-dev softhsm2 libp11-kit-dev python3)
aarch64_packages=(g++ g++-aarch64-linux-gnu qemu-user)
