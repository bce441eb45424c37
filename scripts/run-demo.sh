#!/usr/bin/env bash
# Builds and installs qvsec into ./install, then checks the installed sample
# configuration with the qvsec tool.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
cmake --install build --prefix "$PWD/install" >/dev/null
echo "installed into $PWD/install"
echo
echo "\$ install/bin/qvsec config check install/share/qvsec/qvsec.cfg.sample"
install/bin/qvsec config check install/share/qvsec/qvsec.cfg.sample
