#!/usr/bin/env bash
# The demo: two publishers and a reader. The second publisher is killed, the tree is made compact
# under the reader's eyes, then the first publisher is killed, too.
set -euo pipefail
bin=$1
key=$((0x54000000 + $$ % 0x10000))
network_key=$((key + 0x10000))
children=()

hex() { printf '0x%08x' "$1"; }
say() { printf '\n== %s\n\n' "$*"; }
finish() {
  local child
  for child in "${children[@]}"; do kill -KILL "$child" 2>/dev/null || true; done
  "$bin/trel_publisher" "$key" --remove
}
trap finish EXIT

plain=()
[ -t 1 ] || plain=(--plain)

"$bin/trel_publisher" "$key" &
machine=$!
children+=("$machine")
"$bin/trel_reader" "$key" "${plain[@]}" --remove &
reader=$!
children+=("$reader")
sleep 1
"$bin/trel_publisher" "$key" --network &
network=$!
children+=("$network")
sleep 3

say "kill -KILL the network's publisher: its part of the tree falls silent, the rest goes on"
kill -KILL "$network"
wait "$network" 2>/dev/null || true
sleep 3

say "the tree is copied into one fresh segment under the same key, the reader follows"
kill -USR1 "$machine"
sleep 3

say "kill -KILL the publisher: it cannot clean up behind itself"
kill -KILL "$machine"
wait "$machine" 2>/dev/null || true
wait "$reader"
children=()
if ipcs -m | grep -qiE "$(hex "$key")|$(hex "$network_key")"; then
  echo "a segment is still there"
  exit 1
fi
echo "the reader noticed, and removed the segment"
