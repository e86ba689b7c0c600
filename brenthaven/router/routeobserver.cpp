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
    case SRouteStep::kSentTo:
      return "sent to";
    case SRouteStep::kStoreUnreadable:
      return "store unreadable";
  }
  return "";
}
