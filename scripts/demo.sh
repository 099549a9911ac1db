#!/bin/sh
# Installs what zor needs, builds it and profiles the bundled example,
# zor-example: the summary goes to the terminal, the result and the HTML
# report to build/demo/, and the report's path is printed at the end.
set -eu
cd "$(dirname "$0")/.."
./scripts/install-deps.sh
cmake -S . -B build -G Ninja
cmake --build build -j "$(nproc)" --target zor zor-example

mkdir -p build/demo
echo "== zor profile --interval 5 -- zor-example --seconds 3"
./build/bin/zor profile --interval 5 -o build/demo/zor-example.zor --html build/demo/zor-example.html \
    -- ./build/bin/zor-example --seconds 3
echo
echo "(zor-example means 50/30/20 on its main thread and 75/25 on its worker)"
echo "HTML report: file://$PWD/build/demo/zor-example.html"
