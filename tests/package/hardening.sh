# hardening.sh: what is shipped is built so that a bug is hard to abuse.
source "$(dirname "$0")/common.sh"

# has FILE PATTERN WHAT OPTION...: what readelf says about the file.
has() {
  local file=$1 pattern=$2 what=$3
  shift 3
  readelf --wide "$@" "$file" | grep -E "$pattern" > /dev/null || fail "$file has no $what"
}

programs=("$PREFIX/bin/korvexd" "$PREFIX/bin/korvex")
libraries=("$LIBDIR/libkorvex.so" "$LIBDIR/libkorvex-receiver.so" "$LIBDIR/libqmx.so")

for file in "${programs[@]}" "${libraries[@]}"; do
  [ -f "$file" ] || fail "$file is not installed"
  has "$file" 'Type: +DYN' "position-independent code" --file-header
  has "$file" 'GNU_RELRO' "read-only relocations" --program-headers
  has "$file" '\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW' "binding at start" --dynamic
  has "$file" 'GNU_STACK.* RW +0x' "stack without execution" --program-headers
  has "$file" '__stack_chk_fail' "protected stack" --dyn-syms
  ! readelf --wide --dynamic "$file" | grep TEXTREL || fail "$file has text relocations"
done
for file in "${programs[@]}"; do
  has "$file" '\(FLAGS_1\).*PIE' "mark of a position-independent program" --dynamic
done
# Each of them uses functions of the C library that have a checked form.
for file in "${programs[@]}" "${libraries[@]}"; do
  has "$file" '__[a-z]+_chk@' "checked function of the C library" --dyn-syms
done
