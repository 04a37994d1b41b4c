#!/usr/bin/env bash
# `make run`: a collecting server and one node daemon on this machine, the
# shipped example providers every few seconds, the status page of `vorn
# serve`, and each result printed as it is stored. Ctrl-C stops them all.
set -euo pipefail

build=${1:-build}
bin=$build/bin/x86_64
demo=$(cd "$build" && pwd)/demo
rm -rf "$demo"
mkdir -p "$demo/providers"

# A port nobody listens on, so that a server already running is left alone.
port=19740
while ss -Hltn "sport = :$port" | grep -q .; do
  port=$((port + 1))
done

# The examples run every 5 s here, the failing one included, and whatever the
# load of the machine the demo runs on (a node's own limits stay in the files).
for file in provider/etc/*.xml; do
  sed -e 's#<period>[0-9]*</period>#<period>5</period>#' -e '/<disable\/>/d' \
    -e '/<loadavg>/d' "$file" \
    >"$demo/providers/$(basename "$file")"
done
chmod 644 "$demo"/providers/*.xml

cat >"$demo/vornd.xml" <<XML
<configuration>
  <accumulate_host>127.0.0.1</accumulate_host>
  <accumulate_listen_address>127.0.0.1</accumulate_listen_address>
  <accumulate_port>$port</accumulate_port>
  <enable_discovery>false</enable_discovery>
  <enable_adhoc_clusters>false</enable_adhoc_clusters>
  <provider_config_dir>$demo/providers</provider_config_dir>
  <provider_output_dir>$demo/out</provider_output_dir>
  <provider_period>5</provider_period>
  <provider_loadavg>1000</provider_loadavg>
  <database_file>$demo/vorn.db</database_file>
  <accumulate_output_dir>$demo/accumulate</accumulate_output_dir>
</configuration>
XML

"$bin/vorn-serverd" -d -c "$demo/vornd.xml" 2>"$demo/serverd.log" &
server=$!
"$bin/vorn-noded" -d -c "$demo/vornd.xml" 2>"$demo/noded.log" &
node=$!
web=
stop() {
  trap - INT TERM EXIT
  echo
  echo "Stopping vorn serve, vorn-noded and vorn-serverd..."
  if [ -n "$web" ]; then
    kill -TERM "$web" 2>/dev/null || true
    wait "$web" 2>/dev/null || true
  fi
  kill -TERM "$node" 2>/dev/null || true
  wait "$node" 2>/dev/null || true
  kill -TERM "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  echo "Logs: $demo/noded.log, $demo/serverd.log; database: $demo/vorn.db"
}
trap stop INT TERM EXIT

# The status page reads the database the server makes at start-up; the
# kernel picks its port, which vorn serve prints first thing.
for _ in $(seq 100); do
  [ -s "$demo/vorn.db" ] && break
  sleep 0.1
done
"$bin/vorn" serve -c "$demo/vornd.xml" --listen 127.0.0.1:0 >"$demo/vorn-serve.log" 2>&1 &
web=$!
page=
for _ in $(seq 100); do
  page=$(grep -o 'http://[^ ]*' "$demo/vorn-serve.log" 2>/dev/null || true)
  [ -n "$page" ] && break
  kill -0 "$web" 2>/dev/null || break
  sleep 0.1
done

echo "vorn-serverd on port $port and vorn-noded are running; results as they are stored"
echo "(configuration $demo/vornd.xml). Ctrl-C stops them."
if [ -n "$page" ]; then
  echo "Status page: $page  (Prometheus: ${page}metrics)"
else
  echo "vorn serve did not start; see $demo/vorn-serve.log"
fi
echo "Also try: $bin/vorn latest -c $demo/vornd.xml"
printf '%-6s %-8s %-14s %-12s %-5s %s\n' ROW TIME PROVIDER HOST EXIT OUTPUT
last=0
while kill -0 "$server" 2>/dev/null && kill -0 "$node" 2>/dev/null; do
  sleep 1
  [ -f "$demo/vorn.db" ] || continue
  rows=$(sqlite3 -separator $'\t' "$demo/vorn.db" \
    "SELECT rowid, time(Timestamp, 'unixepoch', 'localtime'), Provider, Hostname, Exit_status,
            replace(substr(CAST(STDOUT AS TEXT) || CAST(STDERR AS TEXT), 1, 60), char(10), ' | ')
     FROM vorn_1 WHERE rowid > $last ORDER BY rowid" 2>/dev/null) || continue
  [ -n "$rows" ] || continue
  while IFS=$'\t' read -r id time name host status output; do
    printf '%-6s %-8s %-14s %-12s %-5s %s\n' "$id" "$time" "$name" "$host" "$status" "$output"
    last=$id
  done <<<"$rows"
done
echo "A daemon ended unexpectedly; see the logs."
