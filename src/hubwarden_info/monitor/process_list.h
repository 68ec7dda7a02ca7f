// "listProcesses" and "killProcesses": a sorted, limited table of the
// host's processes measured over one second with a sampler of the request's
// own, and the ending of processes by number through the installed
// platform::ProcessSignals. list_processes and kill_processes themselves are
// declared with the other operations (request/operations.h).
//
// Each "listProcesses" owns its sampler, so concurrent requests neither
// share nor wait for each other's; each blocks its thread for the second
// between its samples (through platform::Sleeper when one is installed).
#pragma once

#include <string_view>

#include "monitor/sampler/libtop.h"

namespace hubwarden {

// The comparison handed to libtop_psort. sort_spec points to a plist::Dict
// holding "primarySortKey", "secondarySortKey", "primarySortDirection" and
// "secondarySortDirection" as strings. Returns -1, 0 or 1.
int samp_p_sort(const void* sort_spec, const libtop_pinfo_t* a, const libtop_pinfo_t* b);

// Compares two records on one key in ascending order: -1, 0 or 1; a key
// that names no comparable figure compares equal.
int samp_p_sort_subcomp(std::string_view key, const libtop_pinfo_t* a, const libtop_pinfo_t* b);

// Percent of one processor used between the sampler's two latest samples;
// 0.0 for a process first seen in the latest one.
double double_from_usage(const libtop_pinfo_t* process, const libtop_tsamp_t* sample);

}  // namespace hubwarden
