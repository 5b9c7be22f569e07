#!/usr/bin/env bash
# End-to-end demo: builds the OAP driver plug-in, the reference host and the
# server simulator, then sends a plain and an interactive message in each
# protocol version through the driver to the simulated server. The simulated
# handsets report delivery and answer (an ordinary answer, a final answer and
# a typed answer); the host hands each status back. Exits 0 only when every
# job saw every status it expects.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

# shellcheck source=scripts/install-deps.sh
source scripts/install-deps.sh
qm_install_deps || { echo "demo: could not install the packages the build needs" >&2; exit 1; }

BUILD_DIR=${QM_DEMO_BUILD_DIR:-build-demo}
JOBS=${QM_JOBS:-2}
WORK=$(mktemp -d "${TMPDIR:-/tmp}/qm-demo.XXXXXX")
SIM_PID=""

cleanup() {
  if [ -n "$SIM_PID" ]; then
    kill "$SIM_PID" 2>/dev/null
    wait "$SIM_PID" 2>/dev/null
  fi
  [ -n "${QM_DEMO_KEEP:-}" ] || rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

echo "demo: building qmoapdriver, qmhost and oapsim in $BUILD_DIR (log: $WORK/build.log)"
if ! { cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release -DQM_BUILD_TESTS=OFF &&
       cmake --build "$BUILD_DIR" --target qmoapdriver qmhost oapsim -j"$JOBS"; } \
     >"$WORK/build.log" 2>&1; then
  tail -n 40 "$WORK/build.log"
  echo "demo: FAILED - the build did not succeed"
  exit 1
fi

find_built() {
  find "$BUILD_DIR" -name "$1" -type f -perm -u+x -print -quit
}
PLUGIN=$(find "$BUILD_DIR" -name 'libqmoapdriver.so' -print -quit)
QMHOST=$(find_built qmhost)
OAPSIM=$(find_built oapsim)
for built in "$PLUGIN" "$QMHOST" "$OAPSIM"; do
  [ -n "$built" ] || { echo "demo: FAILED - a built program is missing"; exit 1; }
done

# Handsets and what each does with a new message: 1001 and 2001 get plain
# messages, 1002 (version 3.0) answers with an ordinary choice and then types
# an answer, 2002 (version 4.0) picks the final choice.
SIM_LOG="$WORK/oapsim.log"
"$OAPSIM" --listen 127.0.0.1:0 --exit-after-ms 120000 --auto-delay-ms 300 \
  --auto 1001=deliver \
  --auto "1002=deliver,option:1,text:On my way" \
  --auto 2001=deliver \
  --auto 2002=deliver,option:2 \
  </dev/null >"$SIM_LOG" 2>&1 &
SIM_PID=$!

SIM_PORT=""
for _ in $(seq 100); do
  SIM_PORT=$(sed -n '1s/^listening on 127\.0\.0\.1:\([0-9][0-9]*\)$/\1/p' "$SIM_LOG")
  [ -n "$SIM_PORT" ] && break
  kill -0 "$SIM_PID" 2>/dev/null || break
  sleep 0.1
done
if [ -z "$SIM_PORT" ]; then
  cat "$SIM_LOG"
  echo "demo: FAILED - the simulator did not start"
  exit 1
fi

LISTEN_PORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
SERVER="127.0.0.1:$SIM_PORT"
echo "demo: simulator on $SERVER, driver listener on 127.0.0.1:$LISTEN_PORT; sending 4 jobs"

HOST_LOG="$WORK/qmhost.log"
timeout 60 "$QMHOST" --plugin "$PLUGIN" --workdir "$WORK" --state "$WORK/state.db" \
  --listen-port "$LISTEN_PORT" --listen-address 127.0.0.1 \
  --poll-ms 200 --duration-ms 15000 --until-expected \
  --job plain-3.0 --handset 1001 --server "$SERVER" --oap-version 3.0 \
    --subject "Notice" --text "Fire drill at 10:00" --expect 3 \
  --job interactive-3.0 --handset 1002 --server "$SERVER" --oap-version 3.0 \
    --subject "Lunch" --text "Are you coming to lunch?" \
    --choice "Yes:1" --choice "No:2" --custom-label "Other answer" \
    --interactive --expect 3,4,5,6 \
  --job plain-4.0 --handset 2001 --server "$SERVER" --oap-version 4.0 \
    --subject "Notice" --text "Visitors in the lobby" --expect 3 \
  --job interactive-4.0 --handset 2002 --server "$SERVER" --oap-version 4.0 \
    --subject "Alarm" --text "Alarm in room 12: will you take it?" \
    --choice "Accept:1" --choice "Decline:2" \
    --interactive --expect 3,6,15 \
  >"$HOST_LOG" 2>&1
HOST_RC=$?

kill "$SIM_PID" 2>/dev/null
wait "$SIM_PID" 2>/dev/null
SIM_PID=""

echo
echo "--- simulator: what the server received and what the handsets did ---"
cat "$SIM_LOG"
echo
echo "--- host: what the driver handed back ---"
cat "$HOST_LOG"
echo

REJECTED=$(grep -c '^\[sim\] rejected' "$SIM_LOG")
SUMMARY=$(grep '^summary:' "$HOST_LOG" | tail -n 1)
if [ "$HOST_RC" -eq 0 ]; then
  echo "demo: PASSED - every expected status came back (${SUMMARY:-no summary line})"
else
  echo "demo: FAILED - qmhost exited with $HOST_RC (${SUMMARY:-no summary line}; $REJECTED request(s) rejected by the simulator)"
fi
exit "$HOST_RC"
