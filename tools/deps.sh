#!/bin/sh
# Installs what a fresh Debian machine lacks to build and test smtpfm.
# The one list of the project's packages: make demo, make test and CI all
# come through here, so a missing install step cannot hide behind one of
# them.
#
#   tools/deps.sh            the packages of the build and of the tests
#   tools/deps.sh --check    only report what is missing (exit 1 if any)
#
# As root, or with sudo that needs no password, missing packages are
# installed with apt-get; otherwise one line names them and the command
# that installs them, and the script fails.
set -eu

# The compiler, make and git are taken as given (a machine that cloned the
# repository and runs make has them); everything else is listed.
# The milter needs libmilter and toml++; its tests a real Postfix and
# miltertest.
PACKAGES="cmake g++ libgtest-dev libgmock-dev libbenchmark-dev libicu-dev
libcli11-dev nlohmann-json3-dev clang-14 libclang-rt-14-dev python3
libmilter-dev libtomlplusplus-dev postfix miltertest"

missing=""
for p in $PACKAGES; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' ||
    missing="$missing $p"
done
missing=${missing# }
[ -z "$missing" ] && exit 0

if [ "${1:-}" = "--check" ]; then
  echo "missing packages: $missing" >&2
  exit 1
fi

if [ "$(id -u)" = 0 ]; then
  sudo=""
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
  sudo="sudo"
else
  echo "smtpfm needs these Debian packages: $missing; install them with: sudo apt-get install -y $missing" >&2
  exit 1
fi

echo "installing: $missing" >&2
export DEBIAN_FRONTEND=noninteractive
# Postfix asks how to configure the machine's mail; the tests run their own
# private instance, so the system's is left unconfigured (and not started).
case " $missing " in
  *" postfix "*)
    echo "postfix postfix/main_mailer_type select No configuration" | $sudo debconf-set-selections ;;
esac
# A fresh machine has no package lists yet; an old list may name versions
# the mirror no longer has, so a failed install gets one update and a retry.
$sudo apt-get install -y -qq $missing >/dev/null 2>&1 || {
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq $missing
}
