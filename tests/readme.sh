#!/usr/bin/env bash
# Builds the programs of README.md as they are printed there, and lets each publisher meet its reader.
# usage: tests/readme.sh BUILD
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
lib=$1/lib
work=$(mktemp -d)
trap 'kill %% 2>/dev/null || true; wait; rm -rf "$work"' EXIT

# block LANGUAGE NUMBER
block() {
  awk -v fence='```' -v wanted="$2" -v language="$1" '
    $0 == fence { on = 0 } on { print } $0 == fence language { on = ++n == wanted }' "$root/README.md"
}
options=(-I"$root/include" -I"$root/platform/include" -L"$lib" -Wl,-rpath,"$lib" -Wall -Wextra -Werror)

# pair LANGUAGE COMPILER EXPECTED: what the reader prints of the publisher.
pair() {
  local language=$1 compiler=$2 expected=$3 name number=0 seen=
  for name in publisher reader; do
    block "$language" $((++number)) >"$work/$name.$language"
    $compiler "$work/$name.$language" -o "$work/$name" "${options[@]}" -ltrel -lplatsvc -pthread
  done
  "$work/publisher" &
  for _ in {1..100}; do
    seen=$("$work/reader" 2>&1) && break
    sleep 0.05
  done
  kill -KILL %%
  wait %% 2>/dev/null || true
  grep -qF "$expected" <<<"$seen" || { echo "the reader in $language printed: $seen"; exit 1; }
  # The publisher was killed: the same program starts again and ends what it left.
  "$work/publisher" &
  sleep 0.3
  kill -0 %% || { echo "the publisher in $language did not start again"; exit 1; }
  "$work/reader" >/dev/null
  kill -KILL %%
  wait %% 2>/dev/null || true
}

pair cpp "${CXX:-c++} -std=c++17" "workers/3 requests 7 1"
pair c "${CC:-cc} -std=c11 -D_DEFAULT_SOURCE" "success"
printf 'int main(void) { const PLATIPCResID a = {PLAT_STRUCTURE_TAG, 0x5401}, b = {PLAT_STRUCTURE_TAG, 0x5402};\n  return TRELOneTimeOnlyInitialization(TREL_STRUCTURE_VERSION, TREL_STRUCTURE_VERSION) || trelRemoveStatusSegment(&a, 2) || trelRemoveStatusSegment(&b, 2); }\n' |
  cat <(echo '#include "trel/trel.h"') - >"$work/remove.c"
cc "$work/remove.c" -o "$work/remove" "${options[@]}" -ltrel -lplatsvc
"$work/remove"
