#!/usr/bin/env bash
# What the order of a maildir store's syncs costs on an ext4 with a journal:
# milliseconds per store for one process, stores per second for 16 at once,
# and the journal commits each makes (bench/sync_order.c names the orders).
# The file system is an image file mounted in a private mount namespace under
# one directory in /tmp, removed at the end. As root.
#
# usage: bench/sync_order.sh [ROUNDS]
set -euo pipefail
repo="$(cd "$(dirname "$0")/.." && pwd)"
rounds="${1:-3}"
[ "${2:-}" = --inside ] || {
  work="$(mktemp -d /tmp/ferndrop-bench.XXXXXX)"
  trap 'rm -rf "$work"' EXIT
  gcc -O2 -o "$work/sync_order" "$repo/bench/sync_order.c"
  unshare -m --propagation private bash "$0" "$rounds" --inside "$work"
  exit
}
work="$3"
truncate -s 1G "$work/disk.img"
mkfs.ext4 -q -F "$work/disk.img"
mkdir "$work/disk"
mount -o loop "$work/disk.img" "$work/disk"
trap 'umount "$work/disk"' EXIT
info="/proc/fs/jbd2/$(basename "$(findmnt -no SOURCE "$work/disk")")-8/info"
commits() { awk 'NR == 1 { print $1 }' "$info"; }

orders=(before file-new new-file new-only procmail)
declare -A one parallel per_store
for round in $(seq "$rounds"); do
  for order in "${orders[@]}"; do
    dir="$work/disk/$order.$round"
    mkdir -p "$dir/tmp" "$dir/new"
    cd "$dir"
    c0="$(commits)"
    one[$order]+="$("$work/sync_order" "$order" 300) "
    c1="$(commits)"
    start="$(date +%s.%N)"
    for _ in $(seq 16); do "$work/sync_order" "$order" 100 > /dev/null & done
    wait
    end="$(date +%s.%N)"
    c2="$(commits)"
    parallel[$order]+="$(awk -v s="$start" -v e="$end" 'BEGIN { printf "%.0f", 1600 / (e - s) }') "
    per_store[$order]+="$(awk -v a="$((c1 - c0))" -v b="$((c2 - c1))" 'BEGIN { printf "%.2f/%.2f", a / 300, b / 1600 }') "
    cd /
  done
done

echo "2 KB stores on ext4 with a journal, $rounds round(s), orders interleaved"
echo
echo "| order | ms per store, one process | stores per second, 16 processes | journal commits per store, one / 16 |"
echo "|---|---|---|---|"
for order in "${orders[@]}"; do
  echo "| $order | ${one[$order]% } | ${parallel[$order]% } | ${per_store[$order]% } |"
done
