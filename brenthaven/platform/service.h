// brenthaven/platform/service.h - control over the services of this machine, through the service manager's bus.
//
// The manager is systemd, asked on the system bus (DBUS_SYSTEM_BUS_ADDRESS, or else the usual socket). Its client
// library is loaded by the first call. Where there is no bus, no manager on it or no library, each operation gives its
// failure at once; a manager that does not answer is given up after 10 seconds, or the limit where that is less.
#pragma once
#include "brenthaven/text/sstring.h"

enum ServiceResult {
  kServiceDone = 0,
  kServiceAlreadyRunning = -202,
  kServiceFailed = -203,  // no such service, could not be started or stopped, or did not get there in time
};
enum ServiceStatus {
  kServiceStatusUnknown = -1,  // no such service, or nobody to ask
  kServiceNotRunning = 0,
  kServiceRunning = 1,
};

// The service is the base name of the path given, and its unit that name with ".service" behind it unless it ends so.
// A start's argument, when not empty, is the instance of a template: "NAME@ARGUMENT.service", escaped as systemd
// escapes names. Without wait the result tells that the manager took the request. With wait an operation looks at the
// state every "limit" milliseconds and gives up after "limit" seconds: one number, two units.
// Any negative result is a failure.
int ServiceStart(SString &service, SString &argument, unsigned wait, int limit);
int GetServiceStatus(SString &service, unsigned wait, int limit);  // neither waits nor has a limit
int StopService(SString &service, unsigned wait, int limit);       // one that does not run is stopped already
// Stops, and then starts whatever the stop gave. Without wait the start may find the service still running.
int RestartService(SString &service, SString &argument, unsigned wait, int limit);
