// brenthaven/exploder/detection.h - requests that were sent to a list in place of its manager.
#pragma once
#include <string_view>

#include "brenthaven/spool/header.h"

// Whether a message is a request: its whole subject is a command such as "unsubscribe news", or its text begins with
// one and has little else, a signature for instance. `text` is the beginning of the body as it is queued; that of a
// body which is not plain text is not looked at. Strict, since a posting that is taken for a request is not sent: a
// subject of "help" needs a body without text.
bool IsMisdirectedRequest(SHeader const &header, std::string_view text);
inline constexpr int kDetectionBytes = 4096;  // of the body that are worth reading
