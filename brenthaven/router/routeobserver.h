// brenthaven/router/routeobserver.h - how the router tells what it decides for a recipient, and why.
#pragma once
#include "brenthaven/text/sstring.h"

// One step of a decision. The comment says what the detail of the step holds.
enum class SRouteStep {
  kBadAddress,       // the address as far as it can be printed, "" or "<>"; refused
  kHost,             // the host after canonicalisation, where it differs from the one written
  kAlreadyRouted,    // the lower-cased address; it is routed once a message
  kAlias,            // one entry that takes the place of this one; told once for each
  kLocalDomain,      // the domain: mail for it ends here
  kRemoteDomain,     // the domain: mail for it is sent on
  kCatchAll,         // UID of the domain's account "*"
  kAccount,          // UID; delivered here
  kAccountHasIt,     // UID that another address of this message has led to already
  kThroughList,      // UID or address that receives the message as a member of a list
  kPercentRelay,     // the entry that a local part with "%" stands for
  kPercentRefused,   // the address; the sender may not relay by "%"
  kUnknown,          // the address: no account, no alias and no catch-all
  kSourceRoute,      // route and host
  kRoutingLine,      // line of the routing table that matches the host: "pattern:target"
  kSentTo,           // host after the routing table
  kStoreUnreadable,  // the address; nothing is decided for the whole message, which waits
  kSetting,          // the setting that has decided the step behind this one, by its name, with the line of a list
  // About a copy that an archive gets; the entry is the archive's.
  kArchiveCopy,  // "host#port"
  // About the message; the entry is its User-From:.
  kSenderAccount,  // UID; what enters here from it gets its header completed
  kForeignSender,  // the address, which is no account's here; the header stays as it came
  kHeaderDelete,   // a field that is removed
  kHeaderAdd,      // a field that is added, with its value
  kHeaderPoster,   // From: as it would read if it bore the envelope sender's address
};

// A short word for the step, "alias", for a listing.
char const *RouteStepName(SRouteStep step);

// Receives the steps in the order in which they are decided. The router holds no observer of its own: one is passed to
// SSMTPRouterModule::Explain and must outlive that call.
class SRouteObserver {
public:
  virtual ~SRouteObserver() = default;
  // entry is the channel entry that the step is about, "SMTP <user@host>".
  virtual void Note(SString const &entry, SRouteStep step, SString const &detail) = 0;
};
