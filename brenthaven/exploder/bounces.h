// brenthaven/exploder/bounces.h - what comes to a subscriber's return path and is no bounce.
#pragma once
#include <string_view>

#include "brenthaven/spool/header.h"

// A program's answer for somebody who is away (RFC 3834), which has the null sender as a bounce has.
bool IsAutomaticReply(SHeader const &header);
// A delivery report (RFC 3464) that says "delayed" or "relayed" of its recipients, and of none that it failed. `body`
// is the beginning of its body.
bool IsDelayNotice(SHeader const &header, std::string_view body);
