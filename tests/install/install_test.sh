#!/bin/sh
# install_test.sh BUILD EXAMPLE COMPILER: installs the build tree into a scratch prefix, builds the example module
# against it by find_package and by pkg-config, and lets a message pass through it in a scratch instance.
set -eu
build=$1 example=$2 compiler=$3
scratch=$(mktemp -d "${TMPDIR:-/tmp}/brenthaven-install-XXXXXX")
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix

fail() {
  echo "install_test: $*" >&2
  exit 1
}

# Runs a command whose output only a failure makes interesting.
quietly() {
  "$@" > "$scratch/log" 2>&1 || {
    cat "$scratch/log" >&2
    fail "$*"
  }
}

# A tree that was configured with sanitizers needs them in what links it.
sanitizers=$(sed -n 's/^BRENTHAVEN_SANITIZE:STRING=//p' "$build/CMakeCache.txt")
flags=${sanitizers:+-fsanitize=$sanitizers}

quietly cmake --install "$build" --prefix "$prefix"
for file in bin/brenthaven bin/sendmail bin/mailq bin/newaliases libexec/brenthaven/Dispatcher \
  libexec/brenthaven/SMTP-Router libexec/brenthaven/Account-Handler libexec/brenthaven/Mailbox-Deliver \
  include/brenthaven/brenthaven.h share/man/man1/brenthaven.1 share/man/man8/Dispatcher.8; do
  test -e "$prefix/$file" || fail "$file is not installed"
done

# Twice the same module: once by each way to find the library.
quietly cmake -S "$example" -B "$scratch/find" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_CXX_FLAGS="$flags"
quietly cmake --build "$scratch/find"

PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name brenthaven.pc)")
export PKG_CONFIG_PATH
mkdir "$scratch/pkg"
# shellcheck disable=SC2046,SC2086 # words of the compiler's command line
"$compiler" -std=c++20 $flags -o "$scratch/pkg/Message-Counter" "$example/counter.cpp" \
  $(pkg-config --cflags --libs brenthaven) -Wl,-rpath,"$(pkg-config --variable=libdir brenthaven)" ||
  fail "pkg-config"

# An instance in which the counter stands before the router.
Brenthaven=$scratch/instance
export Brenthaven
brenthaven=$prefix/bin/brenthaven
"$brenthaven" init --domain example.org --host mail.example.org > /dev/null
"$brenthaven" account add ann --address ann@example.org > /dev/null
"$brenthaven" doctor || fail "doctor"
export HostName=mail.example.org DomainName=example.org MailboxDir="$Brenthaven/mailboxes" SpoolSync=no \
  ModuleName=Message-Counter

for way in find pkg; do
  module=$scratch/$way/Message-Counter
  "$brenthaven" config set Message-Counter/Config/Other x
  "$brenthaven" config unset Message-Counter/Config/Next 2> /dev/null || true
  if "$module" VerifyEnvironment; then fail "$way: verified without its setting"; fi
  "$brenthaven" config set Message-Counter/Config/Next SMTP-Router
  "$module" VerifyEnvironment || fail "$way: VerifyEnvironment ends with $?"

  name=$(printf 'Subject: x\n\nbody\n' | "$brenthaven" submit --print-name -f Bob@far.example ann)
  control=$Brenthaven/control/$name-Control
  sed -i 's/^Function: .*/Function: Message-Counter\r/' "$control"
  MessageFile=$name "$module" MessageFile "$name" || fail "$way: MessageFile ends with $?"
  grep -q '^Function: SMTP-Router' "$control" || fail "$way: not handed on"
  test -s "$Brenthaven/counts/bob@far.example" || fail "$way: not counted"
  ModuleName=SMTP-Router MessageFile=$name "$prefix/libexec/brenthaven/SMTP-Router" MessageFile "$name" 2> /dev/null ||
    fail "$way: the router ends with $?"
done
test "$("$brenthaven" mailbox list ann | wc -l)" -eq 2 || fail "the messages did not arrive"
test "$(od -An -tu4 "$Brenthaven/counts/bob@far.example" | tr -d ' ')" = 2 || fail "the count is not 2"
