#!/bin/sh
# Records the golden results (tests/golden/expected/) anew with the current sources.
# Only for deliberate changes: the commit that changes a result lists the cases and says
# why (tests/golden/README.md).  Extra arguments go to the runner, e.g.
#   scripts/regen-golden.sh --gtest_filter='*ft2_r8__*'
# records only those cases (and keeps the others as they are).
set -eu
cd "$(dirname "$0")/.."
BUILD_DIR=${BUILD_DIR:-build}
if [ ! -f "$BUILD_DIR/CMakeCache.txt" ]; then
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo
fi
cmake --build "$BUILD_DIR" -j2 --target aggtree golden_results_test
AGGTREE_SOURCE_DIR="$PWD" AGGTREE_GOLDEN_REGENERATE=1 \
  "$BUILD_DIR/tests/golden/golden_results_test" --gtest_brief=1 "$@"
git status --short -- tests/golden/expected
