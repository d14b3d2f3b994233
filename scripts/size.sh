#!/bin/bash
# Non-blank lines of the product and of its tests, and their ratio.
# Product: the sources of every program and library built outside the tests (.cpp, .h, .rc) and
# their CMake files.
# Tests: everything under tests/ and fuzz/ (sources, scripts, CMake files; not the fuzz corpus)
# and the scripts that only test (the test command, soak, restarts, clock error, memory check,
# fuzzing, layering check).
set -euo pipefail
cd "$(dirname "$0")/.."
count() { cat "$@" 2>/dev/null | grep -cv '^\s*$' || true; }
product=$(count $(find runtime net sntp config trouble service tools packaging cmake CMakeLists.txt \
                    -type f \( -name '*.cpp' -o -name '*.h' -o -name '*.rc' -o -name CMakeLists.txt \
                              -o -name '*.cmake' \)))
tests=$(count $(find tests fuzz -path fuzz/corpus -prune -o -type f \
                  \( -name '*.cpp' -o -name '*.h' -o -name '*.py' -o -name '*.sh' -o -name CMakeLists.txt \) -print) \
              $(ls scripts/{test,soak,restarts,memcheck,fuzz}.sh scripts/{clock_error,check_portable}.py 2>/dev/null))
echo "product $product lines, tests $tests lines, ratio $(awk "BEGIN{printf \"%.2f\", $tests/$product}")"
