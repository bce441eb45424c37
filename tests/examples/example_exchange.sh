#!/usr/bin/env bash
# usage: example_exchange.sh SERVICE CLIENT MODULE
# The client authenticates to the service and gets its sealed reply; with a
# mechanism the service does not share, the client is refused.
set -euo pipefail
service=$1 client=$2 module=$3
work=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

printf '1 local 0x00000001 %s i\n' "$module" > "$work/qvsec.cfg"
export QV_SEC_CONFIG="$work/qvsec.cfg"
"$service" --socket "$work/s.sock" --count 2 > "$work/service.out" 2>&1 &
pid=$!
for _ in $(seq 200); do [ -S "$work/s.sock" ] && break; sleep 0.05; done

out=$("$client" --socket "$work/s.sock" "ping 42")
user=$(id -un)
grep -q 'context established with mechanism "local"' <<<"$out" || fail "client: $out"
grep -q "reply: hello $user@.*, you said \"ping 42\"" <<<"$out" || fail "client: $out"

# A client that imposes only unknown mechanisms offers nothing the service
# shares, and is refused.
if QV_SEC_IMP_MECHS=nosuch "$client" --socket "$work/s.sock" "x" > "$work/refused.out" 2>&1; then
  fail "client without a shared mechanism succeeded: $(cat "$work/refused.out")"
fi
wait "$pid" || true
pid=""
grep -q "client authenticated as $user@" "$work/service.out" || fail "service: $(cat "$work/service.out")"
grep -q 'request: ping 42' "$work/service.out" || fail "service: $(cat "$work/service.out")"
echo "example exchange: ok"
