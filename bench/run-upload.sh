#!/usr/bin/env bash
# Uploads N chunks of 96 KiB to a fresh kavelo-devserver twice in one run: through LiveUploadWorker
# (bench/upload: signed URLs, four in flight, each chunk first made durable on disk) and with curl
# (--parallel --parallel-max 4, PUT to signed URLs of a second recording, files already on disk).
# Prints both rates and their ratio. Everything stays on 127.0.0.1.
#
# usage: bench/run-upload.sh [N] [build dir]   (defaults: 200, build/default)
set -euo pipefail

chunks="${1:-200}"
build="${2:-build/default}"
server_bin="$build/tools/devserver/kavelo-devserver"
bench_bin="$build/bench/upload"
for f in "$server_bin" "$bench_bin"; do
    [ -x "$f" ] || { echo "missing $f: build kavelo-devserver and bench_upload first" >&2; exit 1; }
done
command -v curl >/dev/null || { echo "curl is needed" >&2; exit 1; }

work="$(mktemp -d -t kavelo-bench-upload-XXXXXX)"
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT

mkfifo "$work/announce"
"$server_bin" --data-dir "$work/server" >"$work/announce" 2>"$work/server.log" &
server_pid=$!
read -r line <"$work/announce"
base="http://${line#listening }"
admin() { curl -sS -X POST "$base/__admin/$1" -H 'Content-Type: application/json' -d "$2" >/dev/null; }
admin recordings '{"recording_id":"bench-worker","recording_secret":"bench-secret-1"}'
admin recordings '{"recording_id":"bench-curl","recording_secret":"bench-secret-2"}'

mkdir -p "$work/chunks" "$work/files"
echo "== $chunks chunks of 96 KiB to $base"
"$bench_bin" --base-url "$base" --recording-id bench-worker --secret bench-secret-1 \
    --chunk-root "$work/chunks" --chunks "$chunks" --write-chunks-to "$work/files" | tee "$work/worker.txt"
worker_rate="$(sed -n 's/^worker_chunks_per_second=//p' "$work/worker.txt")"

# The same files by curl, to signed URLs of the second recording, four transfers at a time.
curl -sS -X POST "$base/functions/v1/generate-upload-urls" -H 'Content-Type: application/json' \
    -H 'x-recording-secret: bench-secret-2' \
    -d "{\"recording_id\":\"bench-curl\",\"start_sequence\":1,\"count\":$chunks}" \
    | grep -o '"url":"[^"]*"' | sed 's/^"url":"//; s/"$//' >"$work/urls.txt"
config="$work/curl.conf"
: >"$config"
n=1
while read -r url; do
    printf 'url = "%s"\nupload-file = "%s"\noutput = "/dev/null"\n' "$url" "$work/files/$(printf '%05d' "$n").aac" >>"$config"
    n=$((n + 1))
done <"$work/urls.txt"
start=$(date +%s.%N)
# No "Expect: 100-continue" round trip, as the program's own HTTP client sends none either.
curl -sS --no-progress-meter --parallel --parallel-max 4 -H 'Expect:' -H 'x-upsert: false' -H 'Content-Type: audio/aac' \
    -w '%{http_code}\n' -K "$config" >"$work/codes.txt" 2>"$work/curl.err" || true
end=$(date +%s.%N)
if [ -s "$work/curl.err" ]; then cat "$work/curl.err" >&2; fi
ok=$(grep -c '^200$' "$work/codes.txt" || true)
curl_rate=$(awk -v n="$chunks" -v s="$start" -v e="$end" 'BEGIN { printf "%.3f", n / (e - s) }')
awk -v n="$chunks" -v s="$start" -v e="$end" -v ok="$ok" \
    'BEGIN { printf "curl:   %d chunks of 96 KiB in %.3f s: %.1f chunks/s, %d answered 200\n", n, e - s, n / (e - s), ok }'
awk -v w="$worker_rate" -v c="$curl_rate" 'BEGIN { printf "ratio worker/curl: %.2f\n", w / c }'
