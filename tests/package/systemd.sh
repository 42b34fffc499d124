# systemd.sh BUILD: installs the build, and has systemd's own programs look at what is in it for
# systemd. No systemd needs to run.
source "$(dirname "$0")/common.sh"

readonly kMostExposureLocal=1.0
readonly kMostExposureWithNetwork=2.0

# A prefix that units may name: systemd looks whether their programs are there.
cmake --install "$1" --prefix "$work/usr" > "$work/log" || fail "$(cat "$work/log")"
units=$work/usr/lib/systemd/system

# exposure UNIT: its score, which is better when it is lower.
exposure() {
  systemd-analyze security --offline=true --no-pager "$1" |
    sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p'
}

# expect_at_most WHAT FOUND LIMIT
expect_at_most() {
  awk -v found="$2" -v most="$3" 'BEGIN { exit !(found != "" && found + 0 <= most + 0) }' ||
    fail "$1 is '$2', expected at most $3"
}

for unit in korvexd.service korvexd@shop.service; do
  [ -f "$units/$unit" ] || cp "$units/korvexd@.service" "$units/$unit"
  complaints=$(SYSTEMD_UNIT_PATH="$units:" systemd-analyze verify --man=no "$units/$unit" 2>&1) ||
    fail "systemd-analyze verify $unit: $complaints"
  expect "what systemd-analyze says of $unit" "$complaints" ""
  local_score=$(exposure "$units/$unit")
  expect_at_most "the exposure of $unit" "$local_score" $kMostExposureLocal
done

# Settings that break the queues, whatever they are worth as hardening; docs/systemd.md.
if grep -E '^(DynamicUser|PrivateUsers|RemoveIPC)=(yes|true|1)' "$units"/*; then
  fail "the settings above take the queues away from the daemon"
fi
expect "KillMode" "$(grep -c '^KillMode=process$' "$units/korvexd.service")" 1

mkdir "$units/korvexd.service.d"
cp "$work/usr/share/korvex/systemd/network.conf" "$units/korvexd.service.d/"
complaints=$(SYSTEMD_UNIT_PATH="$units:" systemd-analyze verify --man=no "$units/korvexd.service" 2>&1) ||
  fail "systemd-analyze verify with network.conf: $complaints"
expect "what systemd-analyze says with network.conf" "$complaints" ""
network_score=$(SYSTEMD_UNIT_PATH="$units:" exposure "$units/korvexd.service")
expect_at_most "the exposure with network.conf" "$network_score" $kMostExposureWithNetwork

root=$work/root
mkdir -p "$root/etc"
systemd-sysusers --root="$root" "$work/usr/lib/sysusers.d/korvex.conf" ||
  fail "systemd-sysusers refuses sysusers.d/korvex.conf"
user=$(awk -F: '$1 == "korvex" { print $3 }' "$root/etc/passwd")
expect_at_most "the id of user korvex" "$user" 999
systemd-tmpfiles --root="$root" --create "$work/usr/lib/tmpfiles.d/korvex.conf" ||
  fail "systemd-tmpfiles refuses tmpfiles.d/korvex.conf"
expect "the mode of /etc/korvex" "$(stat -c %a "$root/etc/korvex")" 750
echo "exposure: $local_score, with network.conf $network_score"
