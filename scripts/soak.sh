#!/usr/bin/env bash
# The soak and fault suite: 10,000 messages through the plug-in with answers
# pushed back concurrently, faulty OAP servers, a hostile listener, logging
# shared by threads and processes under faults, Cleanup at random moments
# while host threads send, host processes killed and restarted on one message
# store, and a million messages through a store limited to 100,000 (CI runs
# the suite with a tenth of that; this script sets QM_SOAK_FULL for the full
# count).
# Installs what is missing, builds in the test build (build-test, shared with
# scripts/test.sh, so a tested tree builds only the soak tests), runs the tests labelled
# "soak" one at a time (they measure threads and memory of their process).
#   scripts/soak.sh            extra CMake arguments may be given in QM_CMAKE_ARGS
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
qm_install_deps

BUILD_DIR=${QM_BUILD_DIR:-build-test}
cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${QM_CMAKE_ARGS:-} >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target soak_load_tests soak_fault_tests soak_stop_tests \
  soak_log_tests soak_cleanup_tests soak_store_tests
QM_SOAK_FULL=1 ctest --test-dir "$BUILD_DIR" -L soak --output-on-failure
