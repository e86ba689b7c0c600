#!/usr/bin/env bash
# run.sh [--once]: an instance under ./var with its dispatcher in the foreground, and a first message through it to two
# accounts, an alias, an unknown user and a remote host. Stays until it is interrupted; with --once it ends there.
set -euo pipefail
cd "$(dirname "$0")/.."
bin=build/release/bin/brenthaven
export Brenthaven=$PWD/var
once=${1:-}

"$bin" init --domain example.org --host mail.example.org
for user in alice bob; do
  "$bin" account show "$user" >/dev/null 2>&1 || "$bin" account add "$user" --address "$user@example.org" >/dev/null
done
"$bin" alias set team@example.org alice@example.org bob@example.org

build/release/libexec/brenthaven/Dispatcher &
dispatcher=$!
trap 'kill -TERM $dispatcher 2>/dev/null || true; wait $dispatcher || true' EXIT
trap 'exit 0' INT TERM
for _ in $(seq 100); do
  [ -s "$Brenthaven/run/dispatcher" ] && break
  kill -0 $dispatcher  # it says itself why it did not start
  sleep 0.05
done

message=$("$bin" submit --print-name -f alice@example.org alice@example.org bob@example.org team@example.org \
  nobody@example.org someone@remote.example.net <<EOF
From: Alice <alice@example.org>
To: team@example.org
Subject: The first message
MIME-Version: 1.0
Content-Type: text/plain; charset=us-ascii

It works.
EOF
)

# All is through when the message's own control file is gone and the report about its unknown recipient has come.
for _ in $(seq 600); do
  if [ ! -e "$Brenthaven/control/$message-Control" ] && "$bin" mailbox list alice | grep -q 'Returned Mail'; then break; fi
  sleep 0.05
done
if [ -e "$Brenthaven/control/$message-Control" ]; then
  echo "run.sh: the message $message has not been routed" >&2
  exit 1
fi

echo
echo "The message $message went to:"
for user in alice bob; do
  echo "  mailbox of $user:"
  "$bin" mailbox list "$user" | sed 's/^/    /'
done
echo "  waiting for SMTP-Deliver, which takes the remote recipient:"
"$bin" queue list | sed 's/^/    /'

for user in alice bob; do
  "$bin" mailbox list "$user" | grep -q 'The first message' || { echo "run.sh: nothing for $user" >&2; exit 1; }
done
"$bin" mailbox list alice | grep -q 'Returned Mail' || { echo "run.sh: no report about the unknown user" >&2; exit 1; }
"$bin" queue list | grep -q 'SMTP-Deliver.*someone@remote.example.net' || { echo "run.sh: no outgoing copy" >&2; exit 1; }

if [ "$once" = --once ]; then exit 0; fi
echo
echo "The dispatcher runs on $Brenthaven. Interrupt to stop it; meanwhile, from another shell:"
echo "  $bin --root $Brenthaven submit -f bob@example.org alice@example.org < message"
wait $dispatcher
