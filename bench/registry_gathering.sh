#!/usr/bin/env bash
# Handler gathering for one delivery: a registry of 100,000 rows spread over
# many addresses against an empty one. Prints both medians and their ratio;
# fails when the large registry costs 2x or more.
#
# usage: bench/registry_gathering.sh [ITERATIONS]
# FERNDROP_BUILD_DIR reuses an existing build tree (its ferndrop_handlers and
# ferndrop_driver libraries); otherwise one is made in a temporary directory.
set -euo pipefail
repo="$(cd "$(dirname "$0")/.." && pwd)"
iterations="${1:-2000}"
rows=100000

work="$(mktemp -d /tmp/ferndrop-bench.XXXXXX)"
trap 'rm -rf "$work"' EXIT

build="${FERNDROP_BUILD_DIR:-$work/build}"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFERNDROP_TESTS=OFF > /dev/null
fi
cmake --build "$build" -j2 --target ferndrop_handlers ferndrop_driver > /dev/null
handlers_lib="$(find "$build" -name libferndrop_handlers.a | head -1)"
driver_lib="$(find "$build" -name libferndrop_driver.a | head -1)"
g++ -std=c++20 -O2 -I"$repo/src" -I"$build/generated" "$repo/bench/registry_gathering.cc" \
    "$handlers_lib" "$driver_lib" -lsqlite3 -o "$work/registry_gathering"

schema='BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, executable, context));CREATE INDEX idx1 ON handlers(queue, type, enabled, address);CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);CREATE INDEX idx3 ON handlers(name, queue, type, address);CREATE INDEX idx4 ON handlers(name, queue, type);CREATE INDEX idx_address_nocase ON handlers(queue, type, enabled, address COLLATE NOCASE, priority);COMMIT;'
# In the large registry a few handlers apply to the benchmark's delivery, so
# its gathering does real work; the empty registry has the table only.
matching="INSERT INTO handlers VALUES
  (2, 0, 1, 1, 'm-sender', 'bench-sender@bench-from.org', '/bin/true', 'c', 0),
  (2, 1, 1, 1, 'm-recipient', 'bench-rcpt@bench-to.org', '/bin/true', 'c', 0),
  (2, 3, 1, 1, 'm-domain', 'bench-to.org', '/bin/true', 'c', 0),
  (2, 4, 1, 1, 'm-all', 'all', '/bin/true', 'c', 0);"

sqlite3 "$work/empty.db" "$schema"
# Senders, recipients and their domains over 20,000 addresses in 2,000
# domains, across queues 1 to 3, some disabled.
sqlite3 "$work/large.db" "$schema $matching
BEGIN;
WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < $rows - 1 - 4)
INSERT INTO handlers
SELECT 1 + i % 3, i % 4, (i % 10) != 0, i % 17, 'h' || i,
       CASE WHEN i % 4 < 2 THEN 'user' || (i % 20000) || '@dom' || (i % 2000) || '.org'
            ELSE 'dom' || (i % 2000) || '.org' END,
       '/usr/local/bin/filter' || (i % 50), 'ctx' || i, 0
FROM n;
COMMIT;"
count="$(sqlite3 "$work/large.db" 'SELECT count(*) FROM handlers')"

read -r empty_us empty_n < <("$work/registry_gathering" "$work/empty.db" "$iterations")
read -r large_us large_n < <("$work/registry_gathering" "$work/large.db" "$iterations")
ratio="$(awk -v a="$large_us" -v b="$empty_us" 'BEGIN { printf "%.2f", a / b }')"

echo "gathering for one delivery, median of $iterations runs:"
echo "  empty registry (0 rows):        ${empty_us} us, ${empty_n} handlers"
echo "  large registry (${count} rows): ${large_us} us, ${large_n} handlers"
echo "  ratio: ${ratio}x (limit 2x)"
awk -v r="$ratio" 'BEGIN { exit !(r < 2) }'
