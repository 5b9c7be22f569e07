#!/usr/bin/env bash
# Builds the benchmarks (Release, in build-bench), runs them once and rewrites
# the measured part of docs/PERFORMANCE.md from that one run. Every ratio
# compares a figure with a baseline measured in the same run. The notes below
# the marker line in docs/PERFORMANCE.md are kept as they are.
# Installs what is missing. Takes about 20 minutes on a 2-core machine, most
# of it the 200 quiet spells of the first-answer latency.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/install-deps.sh
qm_install_deps

BUILD_DIR=${QM_BENCH_DIR:-build-bench}
REPETITIONS=${QM_BENCH_REPETITIONS:-5}
DOC=docs/PERFORMANCE.md
RESULT=$(mktemp /tmp/qm_bench.XXXXXX.json)
trap 'rm -f "$RESULT"' EXIT

CONFIGURE=(cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release -DQM_BUILD_TESTS=OFF)
BUILD=(cmake --build "$BUILD_DIR" --target qm_bench -j"$(nproc)")
RUN=("$BUILD_DIR/qm_bench" --benchmark_repetitions="$REPETITIONS"
  --benchmark_enable_random_interleaving=true --benchmark_report_aggregates_only=true
  --benchmark_out="$RESULT" --benchmark_out_format=json)

"${CONFIGURE[@]}" >/dev/null
"${BUILD[@]}"
[ -x "$BUILD_DIR/qm_bench" ] || { echo "error: qm_bench was not built (is libbenchmark-dev installed?)" >&2; exit 1; }

LOAD_BEFORE=$(cut -d' ' -f1-3 /proc/loadavg)
if ! "${RUN[@]}"; then
  # The benchmark library crashes while it sums up repetitions whose first
  # one failed; a single repetition shows the failure itself.
  echo "error: the benchmarks failed; QM_BENCH_REPETITIONS=1 $0 shows which one and why" >&2
  exit 1
fi
LOAD_AFTER=$(cut -d' ' -f1-3 /proc/loadavg)

mkdir -p docs
export QM_RESULT="$RESULT" QM_DOC="$DOC" QM_LOAD_BEFORE="$LOAD_BEFORE" QM_LOAD_AFTER="$LOAD_AFTER"
export QM_CPU=$(lscpu 2>/dev/null | sed -n 's/^Model name:[[:space:]]*//p' | head -1)
export QM_NPROC=$(nproc)
export QM_MEMORY=$(awk '/MemTotal/ {printf "%.1f GiB", $2 / 1048576}' /proc/meminfo)
export QM_KERNEL="$(uname -sr)"
export QM_COMPILER=$("$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$BUILD_DIR/CMakeCache.txt")" --version | head -1)
export QM_SQLITE=$(grep -m1 -o 'SQLITE_VERSION *"[^"]*"' /usr/include/sqlite3.h | cut -d'"' -f2)
export QM_REPETITIONS=$REPETITIONS
export QM_COMMANDS="$(printf '%q ' "${CONFIGURE[@]}")
$(printf '%q ' "${BUILD[@]}")
$(printf '%q ' "${RUN[@]}" | sed "s|$RESULT|<result.json>|")"

python3 - <<'PYTHON'
import json
import os

result = json.load(open(os.environ["QM_RESULT"]))
runs = {}
for run in result["benchmarks"]:
    if run.get("error_occurred"):
        raise SystemExit("benchmark failed: %s: %s" % (run["name"], run.get("error_message")))
    # The median of the repetitions, or the single run of a one-off figure.
    if run.get("run_type") == "aggregate" and run.get("aggregate_name") != "median":
        continue
    runs[run["run_name"]] = run

SCALE = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def find(prefix):
    for name, run in runs.items():
        if name == prefix or name.startswith(prefix + "/"):
            return run
    raise SystemExit("no result for " + prefix)


def ns(prefix):
    run = find(prefix)
    return run["real_time"] * SCALE[run["time_unit"]]


def fmt_time(value):
    if value >= 1e6:
        return "%.2f ms" % (value / 1e6)
    if value >= 1e3:
        return "%.1f µs" % (value / 1e3)
    return "%.0f ns" % value


def fmt_rate(value):
    return "{:,.0f}/s".format(value)


rows = []


def absolute(figure, text, target="", met=""):
    rows.append((figure, text, "", "", target, met))


def paired(figure, prefix, subject, baseline, target, rate=False):
    """A row from a paired benchmark: the figure and its baseline were run in
    alternating blocks; the ratio is the median of the per-repetition ratios."""
    run = find(prefix)
    show = (lambda v: fmt_rate(1e9 / v)) if rate else fmt_time
    value = run["ratio"]
    verdict = "" if target is None else ("met" if value >= target else "**missed**")
    rows.append((figure, "%s (%s)" % (show(run["subject_ns"]), subject),
                 "%s (%s)" % (show(run["baseline_ns"]), baseline), "%.2f" % value,
                 "" if target is None else "≥ %.2f" % target, verdict))


paired("Outbound send through the plug-in, per message", "BM_Outbound", "SendAMessage",
       "raw connect/write/read/close", 0.85)
paired("Inbound answers through the listener into the query, short connections", "BM_Inbound",
       "driver", "raw accept-read-echo", 0.70, rate=True)
latency = find("BM_FirstAnswerLatency")
for share in ("p50", "p99"):
    value = latency[share + "_ms"]
    base = latency["baseline_" + share + "_ms"]
    target = "≤ 5 ms" if share == "p99" else ""
    rows.append(("First answer after a 5 s quiet spell, %s of %d" % (share, latency["samples"]),
                 "%.2f ms (driver)" % value, "%.2f ms (raw accept-read)" % base,
                 "%.2f" % (base / value), target,
                 ("met" if value <= 5.0 else "**missed**") if target else ""))
paired("Outbound send with the message store in a file", "BM_StoreOutbound", "SQLite store",
       "store in memory", 0.80)
paired("Inbound answers with the message store in a file", "BM_StoreInbound", "SQLite store",
       "store in memory", 0.80, rate=True)
paired("Parse a typical response", "BM_ParseResponse", "OAPBlock::Parse", "bare expat", 0.60)
absolute("Serialise an interactive request, 3.0", fmt_time(ns("BM_SerializeRequest/version:3")))
absolute("Serialise an interactive request, 4.0", fmt_time(ns("BM_SerializeRequest/version:4")))
paired("File writer, per line", "BM_FileWriter", "QmsysEventLogFileWriter",
       "raw lock/append/close", 0.85)
paired("SQLite writer, rows", "BM_SQLiteWriter", "QmsysEventLogSQLiteWriter",
       "raw prepared insert", 0.80, rate=True)
sqlite_rows = 1e9 / find("BM_SQLiteWriter")["subject_ns"]
absolute("SQLite writer, rows per second", fmt_rate(sqlite_rows), "≥ 10,000/s",
         "met" if sqlite_rows >= 10000 else "**missed**")
front = find("BM_MultiThreadedFrontEnd")
absolute("Multi-threaded front end, per call on the caller's thread",
         "%s real, %s CPU" % (fmt_time(ns("BM_MultiThreadedFrontEnd")),
                              fmt_time(front["cpu_time"] * SCALE[front["time_unit"]])))
absolute("CPU of an idle driver (listener up, no traffic)",
         "%.1f ms per second" % find("BM_IdleDriverCpu")["cpu_ms_per_s"])
memory = find("BM_MemoryPerMessage")["bytes_per_message"]
absolute("Resident memory retained per accepted message", "%.0f bytes" % memory, "≤ 1024 bytes",
         "met" if memory <= 1024 else "**missed**")

env = os.environ
context = result["context"]
lines = [
    "# Performance",
    "",
    "Written by `scripts/bench.sh` from one run of the benchmarks (`bench/`, Google Benchmark,",
    "Release build). Each ratio compares a figure with a baseline measured in the same run: the",
    "two run in alternating blocks inside one benchmark, so both see the same load on a busy",
    "machine. A ratio is baseline time over figure time (for rates, figure over baseline);",
    "above 1 the figure is the faster. Figures are medians of %s repetitions, run in random"
    % env["QM_REPETITIONS"],
    "interleaved order; times are wall-clock.",
    "",
    "## Machine",
    "",
    "| | |",
    "|---|---|",
    "| date | %s |" % context["date"],
    "| processors (nproc) | %s |" % env["QM_NPROC"],
    "| CPU model | %s |" % (env["QM_CPU"] or "unknown"),
    "| memory | %s |" % env["QM_MEMORY"],
    "| kernel | %s |" % env["QM_KERNEL"],
    "| compiler | %s |" % env["QM_COMPILER"],
    "| SQLite | %s |" % env["QM_SQLITE"],
    "| load average before / after | %s / %s |" % (env["QM_LOAD_BEFORE"], env["QM_LOAD_AFTER"]),
    "",
    "## Commands",
    "",
    "```sh",
    env["QM_COMMANDS"].strip(),
    "```",
    "",
    "## Results",
    "",
    "| figure | measured | baseline | ratio | target | |",
    "|---|---|---|---|---|---|",
]
lines += ["| " + " | ".join(row) + " |" for row in rows]
lines += [
    "",
    "What each benchmark does:",
    "",
    "- *Outbound*: the plug-in loaded with `dlopen` through the reference loader, `Setup` on a",
    "  loopback listener port, no logger attached; one interactive 3.0 job with two choices sent",
    "  again and again to a small loopback OAP server (its own thread, raw sockets) that answers",
    "  every request with an accepted response under the request's id. The baseline writes the",
    "  bytes the driver wrote to the same server: connect, write, one read, close.",
    "- *Inbound*: each batch sends 200 interactive messages (untimed), then pushes one answer",
    "  per message to the driver's listener on a short connection of its own (connect, write,",
    "  half-close, wait for the driver to close it, as a server does) and queries until every",
    "  job has been handed back. The driver echoes each answer to the OAP server (the \"You",
    "  replied:\" update) before it closes the connection; the raw accept-read loop makes that",
    "  same one exchange for every document.",
    "- *First answer after a quiet spell*: one interactive message is sent (untimed), nothing",
    "  happens for 5 s, then its answer is pushed on a short connection (connect, write,",
    "  close); the time runs from the connect until `Send2WayRespQuery` hands the job back",
    "  (queried every 50 µs). The baseline is a raw accept-read loop, quiet for the same 5 s,",
    "  until it has read the document. 200 samples (`QM_BENCH_LATENCY_SAMPLES` for fewer), so",
    "  this one benchmark takes about 17 minutes.",
    "- *Store*: the same sends and answer batches through two drivers in one process (the",
    "  library loaded a second time from a copy), one keeping its messages in an SQLite file",
    "  (`MessageStore` set to a file in /tmp), the other in memory (the default), each with its",
    "  own loopback server.",
    "- *Parsing*: `OAPBlock::Parse` of the accepted response (with a status text) against",
    "  `XML_Parse` with empty handlers on a new parser for the same bytes; serialisation writes",
    "  a prepared request block.",
    "- *Logging*: the file writer with one shared file (no rotation in the run) against a loop",
    "  that opens the lock file, takes the open-file-description lock, appends the same line",
    "  with `fopen(\"a+\")`/`fwrite`/`fclose` and closes; the SQLite writer against a prepared",
    "  insert of the same row into the same table in WAL mode with `synchronous=NORMAL`, one",
    "  row per statement, autocommit; the multi-threaded front end with a file writer, 20,000",
    "  `WriteInfo` calls per repetition.",
    "- *Memory*: 2,000 sends to warm up, then 20,000 accepted messages; resident memory from",
    "  `/proc/self/statm` before and after (after `malloc_trim`), divided by the count.",
    "- *Idle CPU*: process CPU time (`getrusage`) over two seconds of sleep with the driver set",
    "  up and no traffic.",
    "",
]

MARKER = "<!-- Notes below are kept by scripts/bench.sh. -->"
notes = MARKER + "\n"
doc = env["QM_DOC"]
if os.path.exists(doc):
    old = open(doc).read()
    if MARKER in old:
        notes = old[old.index(MARKER):]
with open(doc, "w") as out:
    out.write("\n".join(lines) + "\n" + notes)
print("wrote " + doc)
PYTHON
