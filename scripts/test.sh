#!/usr/bin/env bash
# Builds everything and runs the test suite: every test except the soak and
# fault suite (ctest -L soak, scripts/soak.sh) and the check of the Debian
# packages (ctest -L debian), which CI runs too. Installs what is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
qm_install_deps

BUILD_DIR=${QM_BUILD_DIR:-build-test}
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${QM_CMAKE_ARGS:-} >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)"
ctest --test-dir "$BUILD_DIR" --output-on-failure -j"$(nproc)" --timeout 300 -LE 'soak|debian'
