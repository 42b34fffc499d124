# install.sh BUILD MAN: installs the build, then moves the tree: whatever still points to the place
# where it was installed fails from here on.
source "$(dirname "$0")/common.sh"

rm -rf "$PREFIX"
cmake --install "$1" --prefix "$work/installed" > "$work/log" || fail "$(cat "$work/log")"
mkdir -p "$(dirname "$PREFIX")"
mv "$work/installed" "$PREFIX"

for name in korvex qmx; do
  for file in cmake/$name/${name}Config.cmake pkgconfig/$name.pc lib$name.so; do
    [ -f "$LIBDIR/$file" ] || fail "$LIBDIR/$file is missing"
  done
done
for file in pkgconfig/korvex-receiver.pc libkorvex-receiver.so; do
  [ -f "$LIBDIR/$file" ] || fail "$LIBDIR/$file is missing"
done
for file in bash-completion/completions/korvex zsh/site-functions/_korvexd \
  fish/vendor_completions.d/korvex.fish; do
  [ -s "$PREFIX/share/$file" ] || fail "$PREFIX/share/$file is missing"
done
for page in man1/korvex-send.1 man3/korvex-ShmWriter.3 man3/korvex-receiver-Sink.3 man3/qmx-log.3 \
  man5/korvexd.toml.5 man7/korvex-exec.7 man8/korvexd.8; do
  [ "$2" != ON ] || [ -s "$PREFIX/share/man/$page" ] || fail "$PREFIX/share/man/$page is missing"
done
if grep -rl -e "$work" -e "$(realpath "$1")" "$LIBDIR/cmake" "$LIBDIR/pkgconfig"; then
  fail "the files above name the folder of the build or of the first installation"
fi
