#!/bin/sh
# Installs what the project needs, builds the sampler, the example program
# and zor-dump, runs the example under the sampler and prints what zor-dump
# reads from the data file.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build -G Ninja
cmake --build build -j "$(nproc)" --target quorvex-sampler zor-example zor-dump

out="$(mktemp -d)"
trap 'rm -rf "$out"' EXIT
echo "== zor-example, sampled every 10 ms (ZOR_SAMPLER_OUTPUT=$out/samples)"
ZOR_SAMPLER_OUTPUT="$out/samples" ZOR_SAMPLER_OPTIONS="interval=10" \
    LD_PRELOAD="$PWD/build/lib/libquorvex-sampler.so" ./build/bin/zor-example --seconds 2

./build/bin/zor-dump "$out/samples" > "$out/dump.txt"
echo
echo "== zor-dump: the header and the first samples"
sed -n '1,/^sample 3:/p' "$out/dump.txt" | sed '$d'
echo "..."

# Until the back-end turns addresses into source positions, the leaf
# addresses of each thread are matched against the example's symbols here.
echo
echo "== where each thread was when sampled (leaf addresses by function)"
base=$(awk '/\(main\):/ { getline; print $NF; exit }' "$out/dump.txt")
start=$(nm --defined-only build/bin/zor-example | awk '$3 == "_start" { print $1 }')
nm -S --defined-only build/bin/zor-example | awk '$4 ~ /^spin_/ { print $1, $2, $4 }' > "$out/symbols"
awk -v base="$base" -v start="$start" '
    function hex(s,    i, n, c) { n = 0; s = tolower(s); sub(/^0x/, "", s)
        for (i = 1; i <= length(s); ++i) { c = index("0123456789abcdef", substr(s, i, 1)) - 1; n = n * 16 + c }
        return n }
    FNR == NR { lo[$3] = hex($1); hi[$3] = hex($1) + hex($2); next }
    /^  thread [0-9]/ { thread = ($0 ~ /\(main\)/) ? "main thread" : "worker thread"; getline
        if ($2 == "(0):") next
        leaf = hex($3) - (hex(base) - hex(start) - ((hex(base) - hex(start)) % 4096))
        name = "elsewhere"
        for (f in lo) if (leaf >= lo[f] && leaf < hi[f]) name = f
        count[thread, name]++; total[thread]++ }
    END { for (k in count) { split(k, p, SUBSEP)
            printf "  %-14s %-13s %5.1f%%\n", p[1], p[2], 100 * count[k] / total[p[1]] } }
' "$out/symbols" "$out/dump.txt" | sort
echo "(the example aims at 50/30/20 on the main thread and 75/25 on the worker)"
