#!/usr/bin/env bash
# Resident memory of an array of 1,000,000 ints: KorvelScript against lua5.4, in one run.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
korvel="${KORVEL:-$root/build/release/tools/korvel}"
[ -x "$korvel" ] || { cmake --preset release >/dev/null && cmake --build --preset release --target korvel >/dev/null; }
tmp="$(mktemp -d)"; trap 'rm -rf "$tmp"' EXIT
cat > "$tmp/array.ks" <<'KS'
a = []
for i = 1, 1000000
  a[i] = i
end
print(#a)
KS
cat > "$tmp/array.lua" <<'LUA'
local a = {}
for i = 1, 1000000 do a[i] = i end
print(#a)
LUA
rss() { /usr/bin/time -f '%M' "$@" 2>&1 >/dev/null | tail -n 1; }
ks=$(rss "$korvel" "$tmp/array.ks")
lua=$(rss lua5.4 "$tmp/array.lua")
echo "max resident KiB: korvel $ks, lua5.4 $lua"
awk -v a="$ks" -v b="$lua" 'BEGIN { printf "memory ratio vs lua5.4: %.2f\n", a / b }'
