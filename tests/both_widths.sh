#!/usr/bin/env bash
# A publisher of one width and a reader of the other on one segment, both ways round.
# usage: both_widths.sh BIN BIN, each with a width_peer
set -euo pipefail

pair() {
  local key=$((0x57000000 + $$)) publisher
  trap 'ipcrm -M "$(printf 0x%x '"$key"')" 2>/dev/null || true' EXIT
  "$1/width_peer" publish "$key" &
  publisher=$!
  if ! "$2/width_peer" read "$key"; then
    kill -KILL "$publisher" 2>/dev/null || true
    echo "the reader of $2 failed"
    exit 1
  fi
  wait "$publisher" || { echo "the publisher of $1 failed"; exit 1; }
  trap - EXIT
}

pair "$1" "$2"
pair "$2" "$1"
echo "both widths share one segment"
