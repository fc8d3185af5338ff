#!/usr/bin/env bash
# The demo: game-server with a few thousand moving entities on a free loopback port, and
# game-client joined to it for about 15 s with its live status line; then both stop, the
# client prints its summary and the replica is drawn as an SVG top view. The client records
# the session, which game-server --replay plays back (docs/replay.md).
#   tools/demo.sh BUILD_DIR
# Environment: DEMO_ENTITIES (default 3000), DEMO_SECONDS (default 15), DEMO_OUT (default
# BUILD_DIR/demo), where the dump, the picture, the recording and the server's log go.
set -euo pipefail

BUILD=${1:?usage: tools/demo.sh BUILD_DIR}
BIN=$BUILD/bin
ENTITIES=${DEMO_ENTITIES:-3000}
SECONDS_TO_RUN=${DEMO_SECONDS:-15}
OUT=${DEMO_OUT:-$BUILD/demo}

for tool in game-server game-client replica-svg; do
  [[ -x $BIN/$tool ]] || { echo "demo: $BIN/$tool is missing; build first" >&2; exit 1; }
done
mkdir -p "$OUT"
DUMP=$OUT/replica.json
PICTURE=$OUT/replica.svg
RECORDING=$OUT/session.pcapng
SERVER_OUT=$OUT/server.out
SERVER_LOG=$OUT/server.log
rm -f "$DUMP" "$PICTURE" "$RECORDING" "$SERVER_OUT" "$SERVER_LOG"

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
  --seconds $((SECONDS_TO_RUN + 60)) >"$SERVER_OUT" 2>"$SERVER_LOG" &
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
  "game-client joins for $SECONDS_TO_RUN s (Ctrl-C ends it early)"

client_status=0
"$BIN/game-client" --host 127.0.0.1 --port "$port" --seconds "$SECONDS_TO_RUN" \
  --dump "$DUMP" --record "$RECORDING" || client_status=$?
stop_server

echo "demo: server: $(grep '^game-server:' "$SERVER_LOG" | tail -n 1 | sed 's/^game-server: //')"
if ((client_status != 0)); then
  echo "demo: game-client ended with status $client_status" >&2
  exit "$client_status"
fi
"$BIN/replica-svg" "$DUMP" "$PICTURE" >/dev/null
echo "demo: replica dump: $DUMP"
echo "demo: session recording: $RECORDING (to replay it: docs/replay.md)"
echo "demo: picture of the replica (top view): $PICTURE"
