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
