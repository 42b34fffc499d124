#!/usr/bin/env bash
# Streams real files through the library to the daemon and proves that every byte arrived.
#   tests/demo.sh BUILD_FOLDER
set -euo pipefail

readonly kBuild=$1
readonly kKorvex=$kBuild/tools/korvex/korvex
readonly kDaemon=$kBuild/tools/korvexd/korvexd
readonly kQueue=korvex-demo-$$

folder=$(mktemp -d)
daemon=
finish() {
  if [ -n "$daemon" ]; then
    kill "$daemon" 2>/dev/null || true
    wait "$daemon" 2>/dev/null || true
  fi
  rm -rf "$folder"
}
trap finish EXIT

await_queue() {
  for _ in $(seq 200); do
    [ -e "/dev/shm/$kQueue" ] && return
    kill -0 "$daemon" 2>/dev/null || { echo "demo: the daemon ended early" >&2; exit 1; }
    sleep 0.02
  done
  echo "demo: the daemon offered no queue within 4 s" >&2
  exit 1
}

say() { printf '\n== %s\n' "$*"; }

mkdir "$folder/stored"
say "start the daemon: korvexd --queue $kQueue --output DIR"
"$kDaemon" --queue "$kQueue" --output "$folder/stored" &
daemon=$!
await_queue

# Files of this tree, and one of 1 GiB that no two runs share.
head -c 1G /dev/urandom >"$folder/random"
readonly kFiles=("$kKorvex" "$kBuild/src/libkorvex.so" README.md "$folder/random")

say "send ${#kFiles[@]} files as one stream: korvex send --queue $kQueue FILE..."
"$kKorvex" send --queue "$kQueue" "${kFiles[@]}"

say "send a pipe as a second stream: cat ... | korvex send --queue $kQueue"
cat "${kFiles[@]}" | "$kKorvex" send --queue "$kQueue" --quiet

say "compare every byte with what the daemon stored"
streams=0
for stream in "$folder"/stored/*; do
  case $stream in *.partial) echo "demo: $stream is not complete" >&2; exit 1 ;; esac
  cat "${kFiles[@]}" | cmp - "$stream/data"
  echo "identical: $(stat -c %s "$stream/data") bytes in $(basename "$stream")"
  streams=$((streams + 1))
done
[ "$streams" = 2 ] || { echo "demo: $streams streams stored, expected 2" >&2; exit 1; }

say "stop the daemon"
kill "$daemon"
wait "$daemon"
daemon=
[ ! -e "/dev/shm/$kQueue" ] || { echo "demo: the queue is still there" >&2; exit 1; }
echo "every byte arrived"
