#!/usr/bin/env bash
# Streams real files through the library to the daemon, into folders and into a backup engine, and
# proves that every byte arrived and that nothing of a stream that failed was kept.
#   tests/demo.sh BUILD_FOLDER
set -euo pipefail

readonly kBuild=$1
readonly kKorvex=$kBuild/tools/korvex/korvex
readonly kDaemon=$kBuild/tools/korvexd/korvexd
readonly kQueue=korvex-demo-$$
readonly kCut=20M  # how far the command comes that fails: far into the engine
readonly kTree=(docs examples include platform src tests tools)

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

fail() {
  echo "demo: $*" >&2
  exit 1
}
say() { printf '\n== %s\n' "$*"; }

start_daemon() { # option...
  say "start the daemon: korvexd --queue $kQueue ${*@Q}"
  "$kDaemon" --queue "$kQueue" "$@" &
  daemon=$!
  for _ in $(seq 200); do
    [ -e "/dev/shm/$kQueue" ] && return
    kill -0 "$daemon" 2>/dev/null || fail "the daemon ended early"
    sleep 0.02
  done
  fail "the daemon offered no queue within 4 s"
}

stop_daemon() {
  say "stop the daemon"
  kill "$daemon"
  wait "$daemon"
  daemon=
  [ ! -e "/dev/shm/$kQueue" ] || fail "the queue is still there"
}

into_folders() {
  mkdir "$folder/stored"
  start_daemon --output "$folder/stored"

  # Files of this tree, and one of 1 GiB that no two runs share.
  head -c 1G /dev/urandom >"$folder/random"
  local files=("$kKorvex" "$kBuild/src/libkorvex.so" README.md "$folder/random")

  say "send ${#files[@]} files as one stream: korvex send --queue $kQueue FILE..."
  "$kKorvex" send --queue "$kQueue" "${files[@]}"

  say "send a pipe as a second stream: cat ... | korvex send --queue $kQueue"
  cat "${files[@]}" | "$kKorvex" send --queue "$kQueue" --quiet

  say "compare every byte with what the daemon stored"
  local streams=0 stream
  for stream in "$folder"/stored/*; do
    case $stream in *.partial) fail "$stream is not complete" ;; esac
    cat "${files[@]}" | cmp - "$stream/data"
    echo "identical: $(stat -c %s "$stream/data") bytes in $(basename "$stream")"
    streams=$((streams + 1))
  done
  [ "$streams" = 2 ] || fail "$streams streams stored, expected 2"
  stop_daemon
}

expect_snapshots() { # number
  restic snapshots
  local found
  found=$(restic list snapshots | wc -l)
  [ "$found" = "$1" ] || fail "restic holds $found snapshots, expected $1"
}

into_an_engine() {
  export RESTIC_REPOSITORY=$folder/repository RESTIC_PASSWORD=demo
  export RESTIC_CACHE_DIR=$folder/cache
  say "make a restic repository: restic init"
  restic init --quiet
  start_daemon --exec 'restic backup --quiet --stdin --stdin-filename tree.tar'

  local command=(tar -c "${kTree[@]}")
  say "send the sources to restic: korvex send --queue $kQueue --from-command -- ${command[*]}"
  "$kKorvex" send --queue "$kQueue" --from-command -- "${command[@]}"
  expect_snapshots 1

  say "restore and compare: restic dump latest tree.tar | tar -x; diff -r"
  mkdir "$folder/restored"
  restic dump latest tree.tar | tar -x -C "$folder/restored"
  local part
  for part in "${kTree[@]}"; do diff -r "$part" "$folder/restored/$part"; done
  echo "identical: $(find "$folder/restored" -type f | wc -l) files"
}

fail_half_way() {
  local failing=(sh -c "head -c $kCut \"\$0\"; exit 1" "$folder/random") code=0
  say "a command fails after $kCut: korvex send --queue $kQueue --from-command -- ${failing[*]@Q}"
  "$kKorvex" send --queue "$kQueue" --from-command -- "${failing[@]}" || code=$?
  [ "$code" = 1 ] || fail "korvex send ended with $code, expected 1"

  stop_daemon  # after it no engine is left that could still save something
  say "restic has nothing of it: still one snapshot, and a clean repository"
  expect_snapshots 1
  restic unlock
  restic check --quiet
  echo "restic check: clean"
}

compare_with_a_pipe() {
  say "the same through a plain pipe: restic keeps a cut stream as a whole snapshot"
  (head -c "$kCut" "$folder/random" && exit 1) | restic backup --quiet --stdin || true
  expect_snapshots 2
}

into_folders
into_an_engine
fail_half_way
compare_with_a_pipe
say "through korvex, every byte arrived, and nothing of the stream that failed was kept"
