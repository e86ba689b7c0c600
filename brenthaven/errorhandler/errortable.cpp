#include "brenthaven/errorhandler/errortable.h"

#include <algorithm>
#include <iterator>

#include "brenthaven/spool/returned.h"

namespace {

constexpr char kNoSuchAddress[] = "There is no such address here.";
constexpr char kLooped[] = "The message went in a circle.";
constexpr char kWaits[] = "The message waits here, and is tried again.";

constexpr SErrorMeaning kMeanings[] = {
    {"UnknownAccounts", "5.1.1", kNoSuchAddress, kActionReturn},
    {"OverQuota", "5.2.2", "The mailbox is full.", kActionReturn},
    {"MaxMTAHopCountExceeded", "5.4.6", kLooped, kActionReturn},
    {"InvalidHandlerDelivery", "5.4.6", kLooped, kActionReturn},
    {"Unallowed%Addr", "5.7.1", "Mail to this address is not passed on by this host.", kActionReturn},
    // The judge holds what it does not return by itself; a record of that comes here when it could not be moved.
    {"SideLined", "5.7.1", "The message was refused by a rule of this host.", kActionHold},
    // A fault of ours, for a person to mend and to let the message go on.
    {"ModuleDied", "5.3.0", "The message could not be processed.", kActionHold},
    {"DeliveryErrors", "4.2.0", kWaits, kActionReturn},
    {"OpenFailed", "4.3.0", kWaits, kActionReturn},
    {"NotDefined", "4.3.0", kWaits, kActionReturn},
    {"LowDiskSpaceWarning", "4.3.1", kWaits, kActionReturn},
};
constexpr char kFinalStatus[] = "5.4.7";  // delivery time expired
constexpr char kFinalText[] = "The message could not be delivered, though it was tried again.";
constexpr SErrorMeaning kUnknownError = {"", "5.0.0", "The message could not be delivered.", kActionReturn};

}  // namespace

SErrorMeaning const &MeaningOf(SString const &errorName) {
  auto const found = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                  [&](SErrorMeaning const &meaning) { return errorName == meaning.name; });
  return found != std::end(kMeanings) ? *found : kUnknownError;
}

SErrorMeaning FinalMeaningOf(SString const &errorName) {
  SErrorMeaning meaning = MeaningOf(errorName);
  if (!meaning.IsDelay()) return meaning;
  meaning.status = kFinalStatus;
  meaning.text = kFinalText;
  return meaning;
}
