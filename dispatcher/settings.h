// dispatcher/settings.h - what the dispatcher may be told, with defaults and units.
#pragma once
#include <string>
#include <vector>

// Section "/Config" of the module "Dispatcher" in the configuration store. A value that is no number, or lies outside
// its row's bounds, counts as absent and is logged.
struct Settings {
  int maxModules;     // MaxModules: module processes at once; default twice the processors
  int queueInterval;  // QueueInterval: seconds between two walks of a deferred queue; default 300
  int scanInterval;   // ScanInterval: seconds between two scans of control/; default 30
  int retryLimit;     // RetryLimit: failed runs until a control file moves to control/failed; default 5
  int retryDelay;     // RetryDelay: seconds until a failed run is tried again, doubled each time; default 10
  int stopTimeout;    // StopTimeout: seconds that running modules have after SIGTERM; default 30
};

// Reads them from the store under `Brenthaven`. Each complaint about a value is one line of the result's list.
Settings LoadSettings(std::vector<std::string> &complaints);
