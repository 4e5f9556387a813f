#!/usr/bin/env bash
# The cluster figures of vesk-datastore on a generated store of 1,000,000 rows
# (200 providers x 500 hosts x 10 runs, 200-byte outputs, every host with its
# own run stamps), measured with hyperfine, process start included:
#
#   bench/cluster_bench.sh STAGE_DIR [WORK_DIR]
#
# STAGE_DIR is the stage of a release build (cmake --preset release -B
# build-rel && cmake --build build-rel --target vesk-datastore sqlite gives
# build-rel/stage). WORK_DIR keeps the rows, the store and the results
# (results.md) between runs: the store is generated and imported only once.
# Then prune removes half of the rows of a copy while a reader runs
# alongside; every read of the reader must succeed.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
stage=$(cd "${1:?usage: cluster_bench.sh STAGE_DIR [WORK_DIR]}" && pwd)
tool="$stage/bin/vesk-datastore"
work=${2:-$(mktemp -d)}
mkdir -p "$work/home"
export HOME="$work/home"
store="$HOME/.vesk/2019.2.1/vesk.db"

if [ ! -f "$store" ]; then
    [ -f "$work/rows.jsonl" ] || "$here/cluster_rows.py" > "$work/rows.jsonl"
    echo "import of $(wc -l < "$work/rows.jsonl") rows:"
    "$tool" import "$work/rows.jsonl"
    "$tool" snapshot create bench > /dev/null 2>&1
fi

# Every command must exit 0: the store holds failed rows in the last two
# hours, and the snapshot equals the latest rows.
hyperfine --warmup 1 --runs "${RUNS:-5}" --export-markdown "$work/results.md" \
    --export-json "$work/results.json" \
    -n 'rows --provider P --host H (10 rows)' "$tool rows --provider provider007 --host node0042" \
    -n 'rows --latest --host H (200 rows)' "$tool rows --latest --host node0042" \
    -n 'rows --latest --provider P --host node00[0-4]* (50 rows)' \
    "$tool rows --latest --provider provider007 --host 'node00[0-4]*'" \
    -n 'rows --failed --since 2h --limit 1000' "$tool rows --failed --since 2h --limit 1000" \
    -n 'runs --limit 20' "$tool runs --limit 20" \
    -n 'runs (all 5,000)' "$tool runs" \
    -n 'providers' "$tool providers" \
    -n 'hosts' "$tool hosts" \
    -n 'snapshot create --replace (per host, 100,000 rows)' "$tool snapshot create bench --replace" \
    -n 'diff bench --quiet (100,000 rows each side)' "$tool diff bench --quiet"
cat "$work/results.md"
# Wall time follows the load of a shared machine; the processor time of the
# command (user + system) much less so.
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
python3 - "$work/results.json" <<'PY'
import json, statistics, sys
print("| Command | median wall [ms] | mean user+system [ms] |")
print("|:---|---:|---:|")
for r in json.load(open(sys.argv[1]))["results"]:
    print(f"| `{r['command']}` | {statistics.median(r['times']) * 1e3:.1f} | "
          f"{(r['user'] + r['system']) * 1e3:.1f} |")
PY

# prune of half of the rows of a copy, a reader running alongside.
copy="$work/prune"
rm -rf "$copy" && mkdir -p "$copy/.vesk/2019.2.1"
cp "$store" "$copy/.vesk/2019.2.1/vesk.db"
(
    failures=0
    while [ ! -f "$copy/done" ]; do
        HOME="$copy" "$tool" rows --provider provider007 --host node0042 > /dev/null 2>&1 ||
            failures=$((failures + 1))
    done
    echo "$failures" > "$copy/reader-failures"
) &
reader=$!
HOME="$copy" "$tool" prune --keep-runs 5 --yes
touch "$copy/done"
wait "$reader"
echo "reads that failed during prune: $(cat "$copy/reader-failures")"
rm -rf "$copy"
