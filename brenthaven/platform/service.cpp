#include "brenthaven/platform/service.h"

int ServiceStart(SString &, SString &, unsigned, int) { return kServiceFailed; }
int GetServiceStatus(SString &, unsigned, int) { return kServiceStatusUnknown; }
int StopService(SString &, unsigned, int) { return kServiceFailed; }

int RestartService(SString &service, SString &argument, unsigned wait, int limit) {
  (void)StopService(service, wait, limit);  // a service that does not run is started all the same
  return ServiceStart(service, argument, wait, limit);
}
