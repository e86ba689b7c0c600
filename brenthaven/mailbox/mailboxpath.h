// brenthaven/mailbox/mailboxpath.h - where an account's mailbox stands below the mailbox root.
//
// Mailboxes are spread over numbered buckets, so that no directory grows too large:
//
//   <root>/<bucket>/<account>/in/<message id>   one stored message; the name begins with a digit
//   <root>/<bucket>/<account>/in/__size__       bytes stored, and which quota notices went out
//   <root>/<bucket>/<account>/in/__size_lock__  lock of the size file
//   <root>/<bucket>/<account>/in/__lock__       lock of a client that reads the mailbox
#pragma once
#include "brenthaven/text/sstring.h"

// h = byte + h * 33 over the bytes of text, in 32 unsigned bits, modulo count; 0 for an empty text. A count below 1
// counts as 1.
int BucketHash(SString const &text, int count);

// The bucket of an account: BucketHash over MailboxBucketCount of the environment, 500 when that is absent or 0.
int MailboxHash(SString const &account);

// The bucket in decimal, "/", the account. The account is not checked: see IsSafeUID.
SString GetMailboxSubpath(SString const &account);
