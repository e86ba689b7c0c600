#include "brenthaven/mailbox/mailboxpath.h"

#include <algorithm>
#include <climits>
#include <cstdint>

#include "brenthaven/text/base.h"

namespace {
constexpr int kDefaultBucketCount = 500;
}

int BucketHash(SString const &text, int count) {
  uint32_t hash = 0;
  for (char const c : text.View()) hash = static_cast<unsigned char>(c) + hash * 33;
  return count < 1 ? 0 : static_cast<int>(hash % static_cast<uint32_t>(count));
}

int MailboxHash(SString const &account) {
  int const count = static_cast<int>(std::clamp<long>(GetEnv("MailboxBucketCount").AsLong(), INT_MIN, INT_MAX));
  return BucketHash(account, count == 0 ? kDefaultBucketCount : count);
}

SString GetMailboxSubpath(SString const &account) { return MakeSString(MailboxHash(account)) + "/" + account; }
