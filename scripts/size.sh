#!/bin/bash
# The size of the product and of its tests, in non-blank lines and in characters of content
# (everything but white space, so that packing lines changes nothing), and their ratios.
# Product: the sources of every program and library built outside the tests (.cpp, .h, .rc) and
# their CMake files.
# Tests: everything under tests/ and fuzz/ (sources, scripts, CMake files; not the fuzz corpus)
# and the scripts that only test (the test command, soak, restarts, clock error, memory check,
# fuzzing, the layering and test-style checks).
# The simulator (sim/), when there is one, gets a line of its own and counts in neither.
set -euo pipefail
cd "$(dirname "$0")/.."
lines() { cat "$@" 2>/dev/null | grep -cv '^\s*$' || true; }
characters() { cat "$@" 2>/dev/null | tr -d '[:space:]' | wc -c; }
ratio() { awk "BEGIN{printf \"%.2f\", $1/$2}"; }
product=$(find runtime net sntp config trouble service tools packaging cmake CMakeLists.txt \
            -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.rc' -o -name CMakeLists.txt -o -name '*.cmake' \))
tests="$(find tests fuzz -path fuzz/corpus -prune -o -type f \
           \( -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' -o -name CMakeLists.txt \) -print)
       $(ls scripts/{test,soak,restarts,memcheck,fuzz}.sh scripts/{clock_error,check_portable,check_tests}.py 2>/dev/null || true)"
product_lines=$(lines $product) product_characters=$(characters $product)
test_lines=$(lines $tests) test_characters=$(characters $tests)
echo "product $product_lines lines, $product_characters characters"
echo "tests $test_lines lines, $test_characters characters"
echo "tests/product $(ratio "$test_lines" "$product_lines") in lines, $(ratio "$test_characters" "$product_characters") in characters"
if [ -d sim ]; then
  simulator=$(find sim -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' -o -name CMakeLists.txt \))
  echo "sim $(lines $simulator) lines, $(characters $simulator) characters (counted in neither)"
fi
