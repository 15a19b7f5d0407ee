#!/usr/bin/env bash
# Builds everything with the sanitizers and passes the tests; fails on unformatted code, on any
# warning of either compiler, of static analysis or about a manual page, and on a release that is not
# hardened. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/need.sh
need g++ clang clang-format clang-tidy cppcheck cmake make libgtest-dev binutils mandoc tshark \
    bash-completion

echo "== Format"
find front net client ops sandbox bench tests fuzz -name '*.cpp' -o -name '*.h' | sort |
    xargs clang-format --dry-run -Werror
mandoc -T lint -W warning docs/*.1

echo "== Releases of both compilers, hardened"
cmake --preset release >/dev/null
cmake --build --preset release --parallel "$(nproc)" --target all bare
cmake --preset clang >/dev/null
cmake --build --preset clang --parallel "$(nproc)" --target all bare
ctest --test-dir build --quiet --no-tests=error --parallel 8
# The sanitizers hide what is left on a stack, so the password is looked for in a release.
ctest --test-dir build-clang --quiet --no-tests=error -R '^(Hardened$|Secret[.])'

echo "== Static analysis"
# Suppressed: that the headers of the system are not looked at, they are not ours; advice to write a
# loop of three lines as an algorithm; and variables that are never read, which are those whose
# destruction is the point.
cppcheck --std=c++20 --language=c++ --enable=warning,style,performance,portability --quiet \
    --suppress=missingIncludeSystem --suppress=useStlAlgorithm --suppress=unreadVariable \
    --error-exitcode=1 -I. front net client ops sandbox bench
find front net client ops sandbox bench -name '*.cpp' -print0 |
    xargs -0 -P "$(nproc)" -n 1 clang-tidy --quiet -p build-clang

echo "== GCC with address and undefined behaviour sanitizers"
cmake --preset sanitize >/dev/null
cmake --build --preset sanitize --parallel "$(nproc)"
ctest --preset sanitize --parallel 8
