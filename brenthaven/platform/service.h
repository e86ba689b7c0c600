// brenthaven/platform/service.h - control over the services of this machine.
//
// No service manager is reached yet: each operation gives the result of one that could not be opened, at once and
// without waiting. Callers see the failures that they have to handle on any machine without a service manager.
#pragma once
#include "brenthaven/text/sstring.h"

enum ServiceResult {
  kServiceDone = 0,
  kServiceAlreadyRunning = -202,
  kServiceFailed = -203,  // could not be opened or started, or did not run in time
};
enum ServiceStatus {
  kServiceStatusUnknown = -1,
  kServiceNotRunning = 0,
  kServiceRunning = 1,
};

// The service is the base name of the path given. With wait set an operation looks at the state every "limit"
// milliseconds and gives up after "limit" seconds: one number, two units. Any negative result is a failure.
int ServiceStart(SString &service, SString &argument, unsigned wait, int limit);
int GetServiceStatus(SString &service, unsigned wait, int limit);
int StopService(SString &service, unsigned wait, int limit);
int RestartService(SString &service, SString &argument, unsigned wait, int limit);  // stop, then start
