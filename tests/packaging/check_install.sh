#!/usr/bin/env bash
# Checks an installed QM OAP gateway as a host project and an operator meet
# it: the layout, the tools (--version, --help, manual pages), the CMake
# package (the example host built out of tree and run against the installed
# oapsim, logging the plug-in's build id), and the pkg-config file (a probe
# of the static runtime).
# Arguments are key=value:
#   build=DIR targets=a,b,...  install that build into a scratch prefix first
#   prefix=DIR                 or check the tree already installed there
#   cmake=CMAKE cxx=COMPILER sanitize=LIST version=X.Y.Z
set -euo pipefail

for arg in "$@"; do
  key=${arg%%=*}
  declare "opt_${key}=${arg#*=}"
done
cmake=${opt_cmake:-cmake} cxx=${opt_cxx:-c++} sanitize=${opt_sanitize:-} version=${opt_version:?}

work=$(mktemp -d "${TMPDIR:-/tmp}/qm_install.XXXXXX")
sim_pid=
cleanup() {
  [ -z "$sim_pid" ] || kill "$sim_pid" 2>/dev/null || true
  [ -n "${QM_KEEP:-}" ] || rm -rf "$work"
}
trap cleanup EXIT
failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
run_logged() {  # run_logged NAME command...: quiet unless it fails
  local log=$work/$1.log
  shift
  if ! "$@" >"$log" 2>&1; then
    echo "FAIL: $*"
    cat "$log"
    exit 1
  fi
}

if [ -n "${opt_build:-}" ]; then
  IFS=, read -r -a targets <<<"${opt_targets:?}"
  [[ ",${opt_targets}," == *,qmoapdriver,* ]] || { echo "SKIP: the build has no plug-in"; exit 77; }
  # Nothing is installed from a stale build.
  run_logged build "$cmake" --build "$opt_build" --target "${targets[@]}" -j2
  prefix=$work/prefix
  run_logged install "$cmake" --install "$opt_build" --prefix "$prefix"
else
  prefix=${opt_prefix:?}
fi

# ---- Layout -----------------------------------------------------------------
config=$(find "$prefix" -path '*/cmake/QmOap/QmOapConfig.cmake' | head -1)
[ -n "$config" ] || { echo "FAIL: no QmOapConfig.cmake under $prefix"; exit 1; }
libdir=$(dirname "$(dirname "$(dirname "$config")")")
for file in "$libdir/qm/drivers/libqmoapdriver.so" "$libdir/libqmruntime.a" \
  "$libdir/cmake/QmOap/QmOapConfigVersion.cmake" "$libdir/cmake/QmOap/QmOapTargets.cmake" \
  "$libdir/pkgconfig/qmoap.pc" "$prefix/include/qm/runtime/QmLogInterface.h" \
  "$prefix/include/qm/host/QmProtocolDriverInterface.h"; do
  [ -f "$file" ] || fail "missing ${file#"$prefix"/}"
done
for doc in README.md OPERATIONS.md; do
  [ -n "$(find "$prefix/share/doc" -name "$doc*")" ] || fail "missing share/doc/*/$doc"
done
plugin=$libdir/qm/drivers/libqmoapdriver.so
build_id=$(readelf -n "$plugin" | sed -n 's/^ *Build ID: *//p')
[ -n "$build_id" ] || fail "the plug-in carries no build id"

# ---- Tools ------------------------------------------------------------------
for tool in qmhost oapsim qmlogview; do
  [ -x "$prefix/bin/$tool" ] || { fail "missing bin/$tool"; continue; }
  first=$("$prefix/bin/$tool" --version | head -1)
  [ "$first" = "$tool (qm-oap-gateway) $version" ] || fail "$tool --version says '$first'"
  "$prefix/bin/$tool" --help | grep -q '^Usage:' || fail "$tool --help shows no usage"
  page=$(find "$prefix/share/man/man1" -name "$tool.1*" 2>/dev/null | head -1)
  if [ -n "$page" ]; then
    MANWIDTH=80 man -l "$page" 2>/dev/null | grep -q -- '--version' || fail "man $tool lacks --version"
  elif [ -z "${opt_build:-}" ] || [[ ",${opt_targets}," == *,qm_man_pages,* ]]; then
    fail "no manual page for $tool"
  fi
done

# ---- The example host against the installed simulator -----------------------
example=$(dirname "$(find "$prefix/share/doc" -path '*/examples/oap_host/CMakeLists.txt' | head -1)")
[ -d "$example" ] || { echo "FAIL: the example host is not installed"; exit 1; }
# A sanitized plug-in needs a host built with the same sanitizer. The
# interface's type information stays hidden inside the plug-in, so the host
# cannot take part in virtual-pointer checks.
flags=
[ -n "$sanitize" ] && flags="-fsanitize=$sanitize -fno-omit-frame-pointer"
[[ "$sanitize" == *undefined* ]] && flags="$flags -fno-sanitize=vptr"
cp -r "$example" "$work/example"
run_logged host-configure "$cmake" -S "$work/example" -B "$work/example/build" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
run_logged host-build "$cmake" --build "$work/example/build" -j2

start_sim() {  # start_sim [--auto ...]: a simulator on a free port, its port in sim_port
  [ -z "$sim_pid" ] || { kill "$sim_pid"; wait "$sim_pid" 2>/dev/null || true; }
  "$prefix/bin/oapsim" --listen 127.0.0.1:0 "$@" --auto-delay-ms 100 --exit-after-ms 120000 \
    </dev/null >"$work/oapsim.out" 2>&1 &
  sim_pid=$!
  sim_port=
  for _ in $(seq 200); do
    sim_port=$(sed -n '1s/^listening on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/oapsim.out")
    [ -n "$sim_port" ] && return
    sleep 0.05
  done
  cat "$work/oapsim.out"
  echo "FAIL: oapsim did not start"
  exit 1
}
start_sim --auto 1001=deliver --auto 1002=deliver,option:1
listen_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
if ! timeout 60 "$work/example/build/qm_example_host" "127.0.0.1:$sim_port" "$listen_port" \
  >"$work/host.out" 2>"$work/host.err"; then
  fail "the example host did not get its answer"
  cat "$work/host.out" "$work/host.err" "$work/oapsim.out"
fi
grep -q "^answered$" "$work/host.out" || fail "the example host printed no 'answered'"
grep -qF "OAP driver plug-in $version, build id $build_id" "$work/host.err" ||
  fail "the plug-in did not log its version and build id $build_id"
# A handset that never answers: SIGTERM ends the example host's query cycle,
# and it cleans up and reports the message unanswered. A new simulator, since
# a host started within the same second draws the same tracking numbers, which
# the first simulator still knows with their scripted answers.
start_sim
timeout 60 stdbuf -oL "$work/example/build/qm_example_host" "127.0.0.1:$sim_port" "$listen_port" 1003 1004 \
  >"$work/stopped.out" 2>&1 &
host_pid=$!
for _ in $(seq 1200); do  # up to a minute on a loaded machine
  grep -q '^sent ask' "$work/stopped.out" && break
  sleep 0.05
done
kill -TERM "$host_pid" 2>/dev/null || true  # reported below when it ended early
status=0
wait "$host_pid" || status=$?
if [ "$status" -ne 1 ] || ! grep -q '^stopping on signal 15$' "$work/stopped.out" ||
  ! grep -q '^not answered$' "$work/stopped.out"; then
  fail "the example host did not stop cleanly on SIGTERM (status $status)"
  cat "$work/stopped.out"
fi

# ---- pkg-config: the static runtime with its dependencies -------------------
cat >"$work/probe.cpp" <<'PROBE'
#include <cstdio>
#include <cstring>
#include <string>
#include "QmLogSQLiteProcessor.h"
#include "QmProtocolDriverInterface.h"
#include "XmlReaderWriter.h"
int main() {
  char text[] = "<probe/>";
  XmlReaderWriter xml;
  QmLogSQLiteProcessor db(":memory:", true);
  db.writeLogRecord("probe", "one", 1, 3, "probe.cpp", 1);
  QmLogDBProcessorInterface::EntrySet rows;
  db.readLogRecord(rows, "probe", QmLogDBProcessorInterface::ReadLogFilter());
  QmMessageQueue queue;
  std::string root = "-";
  if (xml.readFrom(text, static_cast<unsigned>(std::strlen(text)))) root = static_cast<std::string>(xml.getRootNode().name());
  std::printf("%s %zu\n", root.c_str(), rows.size());
}
PROBE
# shellcheck disable=SC2046,SC2086
if ! PKG_CONFIG_PATH="$libdir/pkgconfig" "$cxx" -std=c++17 $flags "$work/probe.cpp" \
  -o "$work/probe" $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs qmoap) \
  >"$work/probe.log" 2>&1; then
  fail "the pkg-config probe does not build"
  cat "$work/probe.log"
elif [ "$("$work/probe")" != "probe 1" ]; then
  fail "the pkg-config probe printed '$("$work/probe")'"
fi
[ "$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --variable=driver qmoap)" -ef "$plugin" ] ||
  fail "pkg-config names another plug-in"

if [ "$failures" -ne 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "installed tree checked: $prefix"
