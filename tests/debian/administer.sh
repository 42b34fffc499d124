#!/usr/bin/env bash
# administer.sh: runs inside the bare system, as root.
set -euo pipefail
cd /root/debs

readonly kState=/var/lib/korvex kConfiguration=/etc/korvex
readonly kWanted=/etc/systemd/system/multi-user.target.wants
export DEBIAN_FRONTEND=noninteractive

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

step() { echo "== $*"; }

# quietly COMMAND...: its output is shown when it fails.
quietly() {
  "$@" > /root/log 2>&1 || fail "$*: $(tail -n 40 /root/log)"
}

install() { quietly apt-get install -y --no-install-recommends "$@"; }

# gone PATH..., there PATH...
gone() {
  local path
  for path in "$@"; do [ ! -e "$path" ] || fail "$path is still there"; done
}
there() {
  local path
  for path in "$@"; do [ -e "$path" ] || fail "$path is gone"; done
}

has_user() { getent passwd korvex > /dev/null; }

# The block of commands that begins with the installation of the packages.
readme_commands() {
  sed -n '/^apt install/,/^```/p' /root/README.md | grep -v '^```'
}

readme() {
  local command
  readme_commands > /root/commands
  [ "$(wc -l < /root/commands)" = 3 ] ||
    fail "the README shows these commands, expected three: $(cat /root/commands)"
  : > /root/log
  while read -r command; do
    echo "# $command"
    eval "$command" < /dev/null >> /root/log 2>&1 || fail "$command: $(tail -n 40 /root/log)"
  done < /root/commands
  grep -a "stored and verified" /root/log || fail "nothing was verified: $(cat /root/log)"
  quietly korvex verify /srv
  kill %korvexd
  wait
}

# What the service and its administrator would leave; no systemd runs here.
use() {
  mkdir -p $kState/streams/kept $kState/metrics
  echo data > $kState/streams/kept/data
  chown -R korvex:korvex $kState
  touch $kState/stats.json $kState/metrics/korvex.prom
  mkdir -p $kWanted
  ln -sf /lib/systemd/system/korvexd@.service $kWanted/korvexd@shop.service
  echo '[defaults]' > $kConfiguration/korvexd.toml
}

expect_kept() {
  there $kState/streams/kept/data $kConfiguration/korvexd.toml
  has_user || fail "the user who owns the streams is gone"
}

quietly apt-get update

step "the commands of the README"
readme
step "the installed programs carry a stream"
quietly /root/tests/stream

step "only root changes configurations, and only the daemon reads them, too"
found=$(stat -c '%a %U:%G' $kConfiguration)
[ "$found" = "750 root:korvex" ] || fail "$kConfiguration: found $found, expected 750 root:korvex"

step "an upgrade, a removal and even a purge keep streams and configuration"
use
install --reinstall ./korvexd_*.deb
expect_kept
quietly apt-get remove -y korvexd
gone /usr/bin/korvexd
expect_kept
quietly apt-get purge -y korvexd
expect_kept
gone $kState/stats.json $kState/metrics $kWanted/korvexd@shop.service

step "without them, a purge leaves nothing"
install ./korvexd_*.deb
rm -r $kState/streams/kept $kConfiguration/korvexd.toml
quietly apt-get purge -y korvexd korvex 'libkorvex*' 'libqmx*'
gone $kState $kConfiguration
has_user || fail "the user is gone, whose streams may lie elsewhere"
left=$(find / -xdev \( -name '*korvex*' -o -name '*libqmx*' \) ! -path '/root/*' ! -path '/proc/*' \
  ! -path '/var/cache/*')
[ -z "$left" ] || fail "left behind: $left"

step "installed again, they carry a stream"
install ./korvex_*.deb ./korvexd_*.deb ./lib*0.1_*.deb
quietly /root/tests/stream

step "programs build against libkorvex-dev with CMake and pkg-config"
install ./libkorvex-dev_*.deb cmake g++ make pkg-config
quietly /root/tests/build
left=$(ls -A /dev/shm)
[ -z "$left" ] || fail "left in shared memory: $left"
