// brenthaven/spool/instance.h - one installation's environment, as its files state it.
#pragma once
#include "brenthaven/text/sstring.h"

// Sets this process's environment to that of the instance under `root`: `Brenthaven` itself, then each line NAME=VALUE
// of config/environment. Blank lines and lines that begin with "#" or ";" say nothing, blanks around name and value and
// one pair of quotes around the value are dropped: the form of systemd's EnvironmentFile. A line of the file wins over
// what the process came with, so that every program of the instance sees the same. Where neither gives a value,
// `MailboxDir` becomes root/mailboxes, `HostName` the system's name and `DomainName` what follows its first dot.
// 1 when the file was read, 0 when it is missing or unreadable; the defaults are set in either case.
int LoadInstanceEnvironment(SString const &root);

// Whether the root is closed to strangers: 0 when others than its user and group can make files in it, who could put a
// file or a link in the place of any of ours. One that can't be looked at is 1: whatever is wrong with it shows soon.
int IsGuardedRoot(SString const &root);
// "others can write in ROOT", for who refuses such a root.
SString UnguardedRootText(SString const &root);

// Takes over `DispatchSocket` and `DispatchKey` from run/dispatcher, which a running dispatcher writes. 0 when there is
// none: messages are then accepted all the same and found by the dispatcher's next start.
int LoadDispatcherAddress(SString const &root);
