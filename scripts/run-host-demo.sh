#!/usr/bin/env bash
# A client on one simulated host authenticated, mutually, to a service on
# another with the "host" mechanism. Two network namespaces joined by a veth
# pair stand for the hosts (two loopback addresses when namespaces cannot be
# made); each has its own node ID, host key (qvsec host keygen), trusted-hosts
# file, module configuration and daemon (qvsec-hostd). The example service
# runs on host B, the example client on host A, over TCP. Needs root for the
# namespaces. Everything it makes is removed on exit.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh >/dev/null
# Its own tree, so that it does not reuse another build's settings.
cmake -S . -B build-host-demo -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_TESTS=OFF -DQV_BENCH=OFF >/dev/null
cmake --build build-host-demo -j"$(nproc)" --target qvsec qvsec-hostd qvsec-example-service qvsec-example-client \
  mpm_host >/dev/null
bin="$PWD/build-host-demo/bin"
module="$PWD/build-host-demo/lib/qvsec/mpm_host.so"

work=$(mktemp -d)
chmod 755 "$work"
ns_a="qvdemo-a-$$" ns_b="qvdemo-b-$$"
pids=()
namespaces=0
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$namespaces" = 1 ]; then
    ip netns del "$ns_a" 2>/dev/null || true
    ip netns del "$ns_b" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT INT TERM

# The network: namespaces and a veth pair, or loopback addresses.
if ip netns add "$ns_a" 2>/dev/null && ip netns add "$ns_b" 2>/dev/null; then
  namespaces=1
  ip link add "qva$$" netns "$ns_a" type veth peer name "qvb$$" netns "$ns_b"
  ip -n "$ns_a" addr add 10.77.0.1/24 dev "qva$$"
  ip -n "$ns_b" addr add 10.77.0.2/24 dev "qvb$$"
  for ns in "$ns_a" "$ns_b"; do ip -n "$ns" link set lo up; done
  ip -n "$ns_a" link set "qva$$" up
  ip -n "$ns_b" link set "qvb$$" up
  in_a() { ip netns exec "$ns_a" "$@"; }
  in_b() { ip netns exec "$ns_b" "$@"; }
  addr_b=10.77.0.2
  echo "hosts: network namespaces $ns_a (10.77.0.1) and $ns_b (10.77.0.2), joined by a veth pair"
else
  ip netns del "$ns_a" 2>/dev/null || true
  in_a() { "$@"; }
  in_b() { "$@"; }
  addr_b=127.0.0.3
  echo "hosts: network namespaces unavailable; loopback addresses 127.0.0.2 and 127.0.0.3"
fi

# Each host's files: node ID, host key, module and library configuration.
public_key() { "$bin/qvsec" host show --key "$1" | sed -n 's/^public key: *//p'; }
for h in a b; do
  d="$work/host$h"
  mkdir -m 755 "$d"
  od -An -N8 -tx1 /dev/urandom | tr -d ' \n' > "$d/node_id"
  "$bin/qvsec" host keygen --out "$d/host.key" >/dev/null
  printf '1 host 0x00000002 %s i\n' "$module" > "$d/qvsec.cfg"
  # same-users: the two hosts share their user names, so the service maps
  # root@hosta to its local root.
  printf 'socket %s\ntrusted %s\nservices %s\nhost host%s\nskew 30\nlifetime 120\nsame-users hosta hostb\n' \
    "$d/hostd.sock" "$d/trusted-hosts" "$d/host-services" "$h" > "$d/host.conf"
done
# Trust distribution: each host trusts the other's public key, for its name
# and node ID (copied here; between real hosts, over any authentic channel).
"$bin/qvsec" host trust hostb "$(cat "$work/hostb/node_id")" "$(public_key "$work/hostb/host.key")" \
  --file "$work/hosta/trusted-hosts" >/dev/null
"$bin/qvsec" host trust hosta "$(cat "$work/hosta/node_id")" "$(public_key "$work/hosta/host.key")" \
  --file "$work/hostb/trusted-hosts" >/dev/null
echo
echo "host B trusts:"; grep -v '^#' "$work/hostb/trusted-hosts"

# One daemon per host.
env_of() { echo "QV_NODE_ID_FILE=$work/host$1/node_id QVSEC_HOST_CONF=$work/host$1/host.conf QV_SEC_CONFIG=$work/host$1/qvsec.cfg"; }
for h in a b; do
  d="$work/host$h"
  run=in_$h
  $run env $(env_of $h) "$bin/qvsec-hostd" --socket "$d/hostd.sock" --key "$d/host.key" \
    --trusted "$d/trusted-hosts" --host-name "host$h" 2> "$d/hostd.log" &
  pids+=($!)
done
# The socket file exists from bind, a moment before listen: wait for the
# daemon's own word.
for h in a b; do
  for _ in $(seq 200); do grep -q "^qvsec-hostd: serving" "$work/host$h/hostd.log" 2>/dev/null && break; sleep 0.05; done
done

# The service on host B, the client on host A.
in_b env $(env_of b) "$bin/qvsec-example-service" --listen "$addr_b:7400" --count 1 --service example \
  > >(tee "$work/service.out") &
pids+=($!)
for _ in $(seq 200); do grep -q "listening on" "$work/service.out" 2>/dev/null && break; sleep 0.05; done
echo
in_a env $(env_of a) "$bin/qvsec-example-client" --connect "$addr_b:7400" --service example --host hostb \
  "hello from host A"
wait "${pids[-1]}"
echo
echo "daemon logs (one line per refusal):"
cat "$work/hosta/hostd.log" "$work/hostb/hostd.log"
