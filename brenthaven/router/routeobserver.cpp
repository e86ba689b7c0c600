#include "brenthaven/router/routeobserver.h"

char const *RouteStepName(SRouteStep step) {
  switch (step) {
    case SRouteStep::kBadAddress:
      return "bad address";
    case SRouteStep::kHost:
      return "host";
    case SRouteStep::kAlreadyRouted:
      return "already routed";
    case SRouteStep::kAlias:
      return "alias";
    case SRouteStep::kLocalDomain:
      return "local domain";
    case SRouteStep::kRemoteDomain:
      return "remote domain";
    case SRouteStep::kCatchAll:
      return "catch-all";
    case SRouteStep::kAccount:
      return "account";
    case SRouteStep::kAccountHasIt:
      return "account has it";
    case SRouteStep::kThroughList:
      return "through a list";
    case SRouteStep::kPercentRelay:
      return "percent relay";
    case SRouteStep::kPercentRefused:
      return "percent refused";
    case SRouteStep::kUnknown:
      return "unknown";
    case SRouteStep::kSourceRoute:
      return "source route";
    case SRouteStep::kRoutingLine:
      return "routing line";
    case SRouteStep::kSentTo:
      return "sent to";
    case SRouteStep::kStoreUnreadable:
      return "store unreadable";
    case SRouteStep::kSetting:
      return "setting";
    case SRouteStep::kArchiveCopy:
      return "archive copy";
    case SRouteStep::kSenderAccount:
      return "sender's account";
    case SRouteStep::kForeignSender:
      return "no account's";
    case SRouteStep::kHeaderDelete:
      return "header loses";
    case SRouteStep::kHeaderAdd:
      return "header gets";
    case SRouteStep::kHeaderPoster:
      return "header says";
  }
  return "";
}
