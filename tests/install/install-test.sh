#!/usr/bin/env bash
# Installs the build into a throw-away prefix, then configures, builds and runs a small program
# against it twice: through find_package(Tarvolin) and through pkg-config.
#   tests/install/install-test.sh BUILD_DIR
set -euo pipefail
build="$(cd "$1" && pwd)"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
for file in bin/tvl libexec/tarvolin/tvl-pdftext include/tarvolin/query/QueryParser.h \
            lib/cmake/Tarvolin/TarvolinConfig.cmake share/man/man1/tvl.1; do
  [ -e "$prefix/$file" ] || { echo "not installed: $file"; exit 1; }
done
"$prefix/bin/tvl" --version

cmake -S "$here/consumer" -B "$work/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

pc_dir="$(dirname "$(find "$prefix" -name tarvolin.pc | head -1)")"
flags="$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs tarvolin)"
# shellcheck disable=SC2086
c++ -o "$work/consumer-pc" "$here/consumer/main.cpp" $flags
"$work/consumer-pc"
echo "install: find_package and pkg-config consumers built and ran"
