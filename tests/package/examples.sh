# examples.sh EXAMPLES COMPILER: the examples build with the installed package alone and do what
# their first line says.
source "$(dirname "$0")/common.sh"

build_with_cmake "$1" "$2" "$work/build"

batch='\xff\x00\xee\x11''\x00\x00\x00\x02' # magic, two records
batch+='\x00\x00\x00\x01''\x00\x00\x00\x03' # segment data, three bytes
batch+='\x00\x00\x00\x00\x00\x00\x00\x02''\x00\x00\x00\x00\x00\x00\x00\x00' # sequence, segmentCount
batch+='\x00\x00\x00\x00''\x00\x00\x00\x00' # segmentEmpty, segState
batch+='\x00\x00\x00\x00''\x00\x00\x00\x00''\x00\x00\x00\x00''\xaa\xbb\xcc\xdd' # parameters, magic
batch+='abc'
batch+='\x00\x00\x00\x02''\x00\x00\x00\x00' # segment end, no data
batch+='\x00\x00\x00\x00\x00\x00\x00\x03''\x00\x00\x00\x00\x00\x00\x00\x00'
batch+='\x00\x00\x00\x00''\x00\x00\x00\x00'
batch+='\x00\x00\x00\x00''\x00\x00\x00\x00''\x00\x00\x00\x00''\xaa\xbb\xcc\xdd'
expect "the reader's output" "$(printf "$batch" | "$work/build/reader")" \
  "type=1, len=3, crc=38600999
type=2, len=0"

# Nobody serves this queue.
status=0
"$work/build/producer" "korvex-no-queue-$$" < /dev/null 2> "$work/errors" || status=$?
expect "the producer's exit code" "$status" 1
expect "the producer's error" "$(cat "$work/errors")" "producer: No such file or directory"

# What the producers do with a daemon, and with an input that cannot be read.
queue="korvex-examples-$$"
start_daemon "$PREFIX/bin/korvexd" "$queue" "$work/stored"

head -c 300000 /dev/zero | tr '\0' x > "$work/line" # longer than a record may be
"$work/build/producer" "$queue" < "$work/line"
receipt=$("$work/build/receipt" "$queue" < "$work/line")
await_log " 300000 bytes "
expect "the receipt" "$receipt" \
  "stored bytes=300000 xxh128=$(sed -n 's/.* 300000 bytes .* xxh128 \([0-9a-f]*\),.*/\1/p' "$work/daemon.log" | head -n 1)"
expect "the data of the line" "$(cat "$work"/stored/*-1/data | cmp - "$work/line" && echo same)" same
expect "the data of the file" "$(cat "$work"/stored/*-2/data | cmp - "$work/line" && echo same)" same

for program in producer receipt reader; do
  status=0
  "$work/build/$program" "$queue" < "$work" > /dev/null 2> "$work/errors" || status=$?
  expect "the exit code of $program when its input is a folder" "$status" 1
  grep -q "^$program: .*Is a directory" "$work/errors" || fail "$program: $(cat "$work/errors")"
done

# A line that is longer than the memory.
status=0
head -c 300M /dev/zero | tr '\0' x |
  (ulimit -v 100000 && "$work/build/producer" "$queue") 2> "$work/errors" || status=$?
expect "the producer's exit code when it runs out of memory" "$status" 1
expect "the producer's error when it runs out of memory" "$(cat "$work/errors")" \
  "producer: std::bad_alloc"

await_log "stream incomplete" 3 # of the producer twice, and of receipt
[ "$(ls -d "$work"/stored/* | grep -v '[.]partial$' | wc -l)" = 2 ] ||
  fail "a stream that was cut is complete: $(ls "$work/stored")"

# The daemon of the examples, with a producer of the examples.
queue="korvex-example-daemon-$$"
mkdir "$work/files"
"$work/build/daemon" "$queue" "$work/files" &
example=$!
trap 'kill "$daemon" "$example"; wait "$daemon" "$example" || true; rm -rf "$work"' EXIT
for _ in $(seq 3000); do
  [ -e "/dev/shm/$queue" ] && break
  sleep 0.02
done
"$work/build/receipt" "$queue" < "$work/line" > /dev/null
"$work/build/producer" "$queue" < "$work" 2> /dev/null && fail "a folder was streamed"
# The producer does not wait for the daemon.
for _ in $(seq 3000); do
  ls "$work/files" | grep -q -- '-2[.]partial$' && break
  sleep 0.02
done
expect "the stored files" "$(ls "$work/files" | sed -E "s/^$queue-[0-9]+-//" | sort | tr '\n' ' ')" \
  "1 2.partial "
cmp "$work/line" "$work"/files/*-1 || fail "the example daemon stored something else"
