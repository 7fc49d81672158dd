#!/usr/bin/env bash
# Arrows point downward: trel -> treli -> trelll -> trelshm -> platform. Looks at what each module's
# objects leave undefined: whatever only a module above defines is an arrow upward, be it a call or
# a variable. Includes are looked at too.
# usage: tests/arrows.sh BUILD
set -euo pipefail
cd "$(dirname "$0")/.."
build=$1
modules=(platform trelshm trelll treli trel)

objects() {
  local sources=(src/"$1"/*.cpp) target=trel
  [ "$1" = platform ] && sources=(platform/src/*.cpp) target=platsvc
  printf "$build/CMakeFiles/$target.dir/%s.o\n" "${sources[@]}"
}

# One line a symbol of an object: module's rank, d(efined) or u(ndefined), symbol, source.
list_symbols() {
  local rank object
  for rank in "${!modules[@]}"; do
    for object in $(objects "${modules[rank]}"); do
      nm -P "$object" | awk -v rank="$rank" -v source="$(echo "${object%.o}" | sed 's|.*\.dir/||')" \
        '$2 ~ /^[A-Zuvw]$/ { print rank, ($2 ~ /^[Uvw]$/ ? "u" : "d"), $1, source }'
    done
  done
}

calls=$(list_symbols | sort -k2,2 -k1,1n | awk '
  $2 == "d" { if (!($3 in home)) { home[$3] = $1; source[$3] = $4 } }
  $2 == "u" && ($3 in home) && home[$3] > $1 { print $4 ": " $3 " of " source[$3] }' | c++filt | sort -u)
includes=$(for rank in 1 2 3 4; do
  for above in "${modules[@]:rank + 1}"; do
    [ "$above" = trel ] || grep -n "#include \"$above/" src/"${modules[rank]}"/* || true
  done
done; grep -n '#include "trel' platform/src/* | grep -v 'trel/[a-z]*\.def"' || true)

[ -z "$calls$includes" ] && exit 0
echo "arrows upward:"
printf '%s\n' "$calls" "$includes" | grep .
exit 1
