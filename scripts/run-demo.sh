#!/usr/bin/env bash
# The product's main job, on a fresh machine: builds and installs qvsec into
# ./install, configures the "local" mechanism, starts the example service and
# runs the example client against it: the client authenticates through the
# kernel's view of their socket and exchanges a sealed request and reply.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# The demo builds in its own tree, so that it and the test script can run in
# either order without one reusing the other's settings.
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_TESTS=OFF -DQV_BENCH=OFF >/dev/null
cmake --build build-demo -j"$(nproc)"
prefix="$PWD/install"
cmake --install build-demo --prefix "$prefix" >/dev/null
echo "installed into $prefix"

work=$(mktemp -d)
service_pid=""
cleanup() {
  [ -n "$service_pid" ] && kill "$service_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# One mechanism: "local", code 0x1, the module installed under lib/qvsec.
printf '1 local 0x00000001 %s i\n' "$prefix/lib/qvsec/mpm_local.so" > "$work/qvsec.cfg"
export QV_SEC_CONFIG="$work/qvsec.cfg"
echo
echo "\$ qvsec config check \$QV_SEC_CONFIG"
"$prefix/bin/qvsec" config check
echo
# The socket file appears at bind, a moment before the service listens: the
# client starts once the service says it listens.
"$prefix/bin/qvsec-example-service" --socket "$work/example.sock" --count 1 > >(tee "$work/service.out") &
service_pid=$!
for _ in $(seq 200); do grep -q "listening on" "$work/service.out" 2>/dev/null && break; sleep 0.05; done
"$prefix/bin/qvsec-example-client" --socket "$work/example.sock" "hello from $(id -un)"
wait "$service_pid"
service_pid=""
