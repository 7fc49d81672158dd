#!/usr/bin/env bash
# The demo: a publisher and a reader for some seconds, then the publisher is killed.
set -euo pipefail
bin=$1
key=$((0x54000000 + $$))
publisher=""
reader=""

finish() {
  [ -z "$publisher" ] || kill -KILL "$publisher" 2>/dev/null || true
  [ -z "$reader" ] || kill -KILL "$reader" 2>/dev/null || true
  ipcrm -M "$(printf '0x%x' "$key")" 2>/dev/null || true
}
trap finish EXIT

plain=()
[ -t 1 ] || plain=(--plain)

"$bin/trel_publisher" "$key" &
publisher=$!
"$bin/trel_reader" "$key" "${plain[@]}" --remove &
reader=$!
sleep 5

# Killed, not stopped: it cannot clean up behind itself. The reader sees its heart stop, and
# removes the segment.
kill -KILL "$publisher"
wait "$publisher" 2>/dev/null || true
wait "$reader"
reader=""
if ipcs -m | grep -qi "$(printf '0x%08x' "$key")"; then
  echo "the segment is still there"
  exit 1
fi
echo "the publisher was killed, the reader noticed, the segment is removed"
