#!/usr/bin/env bash
# usage: example_exchange.sh SERVICE CLIENT MODULE
# The client authenticates to the service on the default socket path and gets
# its sealed reply; it refuses a service run by another user than it expects
# (an impostor on its path is the module's own test). The client is refused
# with a mechanism the service does not share, and the service will not
# listen in a directory others can write.
set -euo pipefail
service=$1 client=$2 module=$3
work=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
# The socket file appears at bind, a moment before the service listens: wait
# for the service to say it listens.
wait_listening() { for _ in $(seq 200); do grep -q "listening on" "$1" 2>/dev/null && return 0; sleep 0.05; done; fail "not listening: $(cat "$1")"; }

printf '1 local 0x00000001 %s i\n' "$module" > "$work/qvsec.cfg"
export QV_SEC_CONFIG="$work/qvsec.cfg"
# The default socket lives in the user's runtime directory.
mkdir -m 700 "$work/run"
export XDG_RUNTIME_DIR="$work/run"
user=$(id -un)

"$service" --count 3 --cidb "$work/client.cidb" > "$work/service.out" 2>&1 &
pid=$!
wait_listening "$work/service.out"

out=$("$client" "ping 42")
grep -q 'context established with mechanism "local"' <<<"$out" || fail "client: $out"
grep -q "the service runs as $user@" <<<"$out" || fail "client: $out"
grep -q "reply: hello $user@.*, you said \"ping 42\"" <<<"$out" || fail "client: $out"

# A client that expects another user behind the service sends it nothing.
if "$client" --service-user no-such-user-qv "secret" > "$work/other.out" 2>&1; then
  fail "client accepted a service run by an unexpected user: $(cat "$work/other.out")"
fi
grep -q "not run by no-such-user-qv" "$work/other.out" || fail "client: $(cat "$work/other.out")"

# A client that imposes only unknown mechanisms offers nothing the service
# shares, and is refused.
if QV_SEC_IMP_MECHS=nosuch "$client" "x" > "$work/refused.out" 2>&1; then
  fail "client without a shared mechanism succeeded: $(cat "$work/refused.out")"
fi
wait "$pid" || true
pid=""
grep -q "client authenticated as $user@" "$work/service.out" || fail "service: $(cat "$work/service.out")"
grep -q 'request: ping 42' "$work/service.out" || fail "service: $(cat "$work/service.out")"
[ "$(od -An -tx1 -N1 "$work/client.cidb" | tr -d ' ')" = 87 ] || fail "the service wrote no CIDB"
grep -q 'request: secret' "$work/service.out" && fail "the unexpected service got the request"

# A directory others can write is no place for the service's socket.
mkdir -m 1777 "$work/open"
if XDG_RUNTIME_DIR="$work/open" "$service" --count 1 > "$work/open.out" 2>&1; then
  fail "service listened in a world-writable directory"
fi
grep -q "refusing $work/open" "$work/open.out" || fail "service: $(cat "$work/open.out")"

echo "example exchange: ok"
