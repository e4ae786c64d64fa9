// Clocks, process counters and statistics for the performance suite.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kvlperf {

int64_t nowNs();
int64_t cpuNs();            // user + system time of the whole process
int64_t contextSwitches();  // voluntary + involuntary, whole process
int64_t rssKb();            // resident set size
int64_t threadWakeups();    // context switches summed over every other thread now alive
// CPU time of another process (a server child), summed over its threads now alive,
// from the scheduler's per-thread nanosecond counters; -1 when unreadable.
int64_t processCpuNs(int pid);
uint64_t allocations();     // malloc, calloc and realloc calls so far (the suite counts them)

double percentile(std::vector<double> v, double p);
double median(std::vector<double> v);

// Raises the open-file limit to its hard limit (1,000 connections need 2,000 descriptors).
void raiseFileLimit();

}  // namespace kvlperf
