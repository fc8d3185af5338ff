#!/usr/bin/env bash
# The demo: game-server with a few thousand moving entities on a free loopback port, and
# game-client joined to it for about 15 s with its live status line, its socket under
# simulated network faults; then both stop, the client prints its summary, the replica is
# drawn as an SVG top view and the two tools' per-second figures (the client's freshness
# among them) are plotted with gnuplot.
#   tools/demo.sh BUILD_DIR
# Environment: DEMO_ENTITIES (default 3000), DEMO_SECONDS (default 15), DEMO_SIMULATE (the
# client's faults, default below; empty: none), DEMO_OUT (default BUILD_DIR/demo), where the
# dump, the pictures, the figures, the recording and the server's log go. The client
# records the session, which game-server --replay plays back (docs/replay.md).
set -euo pipefail

BUILD=${1:?usage: tools/demo.sh BUILD_DIR}
BIN=$BUILD/bin
ENTITIES=${DEMO_ENTITIES:-3000}
SECONDS_TO_RUN=${DEMO_SECONDS:-15}
OUT=${DEMO_OUT:-$BUILD/demo}
SIMULATE=${DEMO_SIMULATE-loss=5%,delay=20ms,jitter=10ms,reorder=5%,dup=1%,seed=7}

for tool in game-server game-client replica-svg; do
  [[ -x $BIN/$tool ]] || { echo "demo: $BIN/$tool is missing; build first" >&2; exit 1; }
done
mkdir -p "$OUT"
DUMP=$OUT/replica.json
PICTURE=$OUT/replica.svg
RECORDING=$OUT/session.pcapng
DIGEST=$OUT/digest.jsonl
SERVER_OUT=$OUT/server.out
SERVER_LOG=$OUT/server.log
SERVER_STATS=$OUT/server-stats.jsonl
CLIENT_STATS=$OUT/client-stats.jsonl
PLOTS=$OUT/network.svg
SERVER_STATE=$OUT/server-state.json
rm -f "$DUMP" "$PICTURE" "$RECORDING" "$DIGEST" "$SERVER_OUT" "$SERVER_LOG" "$SERVER_STATS" "$CLIENT_STATS" "$PLOTS" "$SERVER_STATE"

server_pid=""
stop_server() {
  if [[ -n $server_pid ]] && kill -0 "$server_pid" 2>/dev/null; then
    kill -TERM "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  server_pid=""
}
trap stop_server EXIT

# The server stops by itself well after the client, should this script be killed.
"$BIN/game-server" --host 127.0.0.1 --port 0 --entities "$ENTITIES" \
  --seconds $((SECONDS_TO_RUN + 60)) --stats "$SERVER_STATS" \
  --final-state "$SERVER_STATE" >"$SERVER_OUT" 2>"$SERVER_LOG" &
server_pid=$!

# --port 0: the chosen port comes alone on the first line of the server's output.
port=""
for _ in $(seq 100); do
  if [[ -s $SERVER_OUT ]]; then
    port=$(head -n 1 "$SERVER_OUT")
    [[ -n $port ]] && break
  fi
  kill -0 "$server_pid" 2>/dev/null || break
  sleep 0.1
done
if ! [[ $port =~ ^[0-9]+$ ]]; then
  echo "demo: game-server did not start; its log:" >&2
  cat "$SERVER_LOG" >&2
  exit 1
fi
echo "demo: game-server with $ENTITIES entities on 127.0.0.1 port $port;" \
  "game-client joins for $SECONDS_TO_RUN s (Ctrl-C ends it early)," \
  "its network: ${SIMULATE:-as it is}"

client_status=0
"$BIN/game-client" --host 127.0.0.1 --port "$port" --seconds "$SECONDS_TO_RUN" \
  --dump "$DUMP" --stats "$CLIENT_STATS" --simulate "$SIMULATE" \
  --record "$RECORDING" --digest "$DIGEST" || client_status=$?
stop_server

echo "demo: server: $(grep ' game-server: ' "$SERVER_LOG" | tail -n 1 | sed 's/^.* game-server: //')"
if ((client_status != 0)); then
  echo "demo: game-client ended with status $client_status" >&2
  exit "$client_status"
fi
"$BIN/replica-svg" "$DUMP" "$PICTURE" "$SERVER_STATE" >/dev/null
echo "demo: replica dump: $DUMP"
echo "demo: picture of the replica (top view, the server's final state as rings): $PICTURE"

# End to end: what the server sent the client against what the client took in.
sent=$(tail -n 1 "$SERVER_STATS" | jq '[.clients[].total.datagrams] | add // 0')
taken=$(jq -s 'map(.in.datagrams) | add // 0' "$CLIENT_STATS")
if ((sent > 0)); then
  echo "demo: datagrams: the server sent $sent, the client took in $taken" \
    "($(jq -n "(1 - $taken / $sent) * 1000 | round / 10")% lost on the way, duplicates counted as taken in)"
fi

# The figures as columns, then one picture of six plots over the run.
jq -r '[.t, (.in.datagrams / .seconds), ((.simulator.in.dropped // 0) / .seconds),
        ((.ticks.transforms.missed + .ticks.physics.missed) / .seconds), (.stale / .seconds),
        .jitterMs, .lateMs.median, .lateMs.p99, .applyWaitMs.median, .applyWaitMs.p99,
        .frameMs.median, .frameMs.p99, (.freshness.ageMs.median / 1000),
        (.freshness.ageMs.p99 / 1000), (.freshness.ageMs.max / 1000)] | @tsv' \
  "$CLIENT_STATS" >"$OUT/client-stats.tsv"
jq -r '[.t, (([.clients[].datagrams] | add // 0) / .seconds)] | @tsv' "$SERVER_STATS" \
  >"$OUT/server-stats.tsv"
gnuplot <<PLOT
set terminal svg size 900,1650 dynamic font "sans,11"
set output "$PLOTS"
set multiplot layout 6,1 title "What the network did (client: ${SIMULATE:-no simulated faults})"
set grid
set key outside right
set xlabel "seconds"
set title "Throughput"
set ylabel "datagrams / s"
plot "$OUT/server-stats.tsv" using 1:2 with lines lw 2 title "server sent", \
     "$OUT/client-stats.tsv" using 1:2 with lines lw 2 title "client took in"
set title "Loss"
set ylabel "per second"
plot "$OUT/client-stats.tsv" using 1:3 with lines lw 2 title "dropped (simulator)", \
     "" using 1:4 with lines lw 2 title "ticks missed", \
     "" using 1:5 with lines lw 2 title "stale"
set title "Jitter and lateness"
set ylabel "ms"
plot "$OUT/client-stats.tsv" using 1:6 with lines lw 2 title "jitter", \
     "" using 1:7 with lines lw 2 title "late, median", \
     "" using 1:8 with lines lw 2 title "late, p99"
set title "Wait before a state datagram is applied"
plot "$OUT/client-stats.tsv" using 1:9 with lines lw 2 title "median", \
     "" using 1:10 with lines lw 2 title "p99"
set title "Frame time (work, sleep excluded)"
plot "$OUT/client-stats.tsv" using 1:11 with lines lw 2 title "median", \
     "" using 1:12 with lines lw 2 title "p99"
set title "Freshness: age of each entity's newest state (seen once a second)"
set ylabel "s"
plot "$OUT/client-stats.tsv" using 1:13 with lines lw 2 title "median", \
     "" using 1:14 with lines lw 2 title "p99", \
     "" using 1:15 with lines lw 2 title "max"
unset multiplot
PLOT
echo "demo: per-second figures: $CLIENT_STATS, $SERVER_STATS"
echo "demo: plots of throughput, loss, jitter, apply wait, frame time and freshness: $PLOTS"
echo "demo: session recording: $RECORDING, the replica's digest: $DIGEST (to replay it" \
  "and compare: docs/replay.md)"
