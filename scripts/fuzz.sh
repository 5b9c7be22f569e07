#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a while.
#   scripts/fuzz.sh [seconds-per-target]   (default 60)
# Seeds come from fuzz/corpus/<target>; new inputs go to build-fuzz/corpus/<target>.
# A crash leaves its input in build-fuzz/ and fails the script.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
qm_install_deps

SECONDS_PER_TARGET=${1:-60}
BUILD_DIR=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Debug -DQM_FUZZ=ON >/dev/null
cmake --build "$BUILD_DIR" -j"$(nproc)" --target fuzz_codec fuzz_ini fuzz_xml fuzz_oap_parse fuzz_oap_inbound

status=0
for target in fuzz_codec fuzz_ini fuzz_xml fuzz_oap_parse fuzz_oap_inbound; do
  name=${target#fuzz_}
  mkdir -p "$BUILD_DIR/corpus/$name"
  echo "== $target for ${SECONDS_PER_TARGET}s"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds+=("fuzz/corpus/$name")
  if ! (cd "$BUILD_DIR" && "./$target" -max_total_time="$SECONDS_PER_TARGET" -print_final_stats=1 \
        -dict=../fuzz/oap.dict "corpus/$name" "${seeds[@]/#/../}" 2>&1 | tail -12); then
    status=1
  fi
done
exit $status
