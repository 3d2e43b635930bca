#!/usr/bin/env bash
# Prints, for each folder under src/, the other src folders whose headers its
# files include, then checks that these edges form no cycle (exit 1 if they
# do). A folder's main*.cc files belong to its executable, not its library,
# so they stand as a node of their own, "folder/main".
set -euo pipefail
cd "$(dirname "$0")/../src"
edges=$(grep -o '^#include "[a-z_]*/[a-z_]*\.h"' -- */*.cc */*.h |
  sed -E 's#^([a-z_]+)/(main)?[^:]*:\#include "([a-z_]+)/.*#\1\2 \3#; s#^([a-z_]+)main #\1/main #' |
  awk '$1 != $2' | sort -u)
for dir in */; do
  dir=${dir%/}
  for node in "$dir" "$dir/main"; do
    targets=$(awk -v n="$node" '$1 == n { printf " %s", $2 }' <<<"$edges")
    [[ -n $targets || ( $node == "$dir" && -n $(ls "$dir" | grep -v '^main' | grep -v CMakeLists) ) ]] &&
      echo "$node ->${targets:- (none)}"
  done
done
tsort <<<"$edges" >/dev/null 2>&1 || { echo "cycle:" >&2; tsort <<<"$edges" 2>&1 >/dev/null | sed 1d >&2; exit 1; }
echo "no cycle; from the executables down: $(tsort <<<"$edges" | tr '\n' ' ')"
