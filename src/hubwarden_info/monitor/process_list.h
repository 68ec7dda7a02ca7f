// "listProcesses" and "killProcesses": a sorted, limited table of the
// host's processes measured over one second with the sampler, and the
// ending of processes by number. list_processes and kill_processes
// themselves are declared with the other operations (request/operations.h).
//
// list_processes holds a module-wide lock from the first sample to the
// last read, so concurrent requests run one after the other (each takes at
// least the one-second pause).
#pragma once

#include <sys/types.h>

#include <functional>
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

// Test hooks. The pause between the two samples (one second by default)
// and the signal sender (::kill by default); an empty function restores
// the default. Not thread-safe: set them before requests run.
void set_process_sample_pause_for_testing(std::function<void()> pause);
void set_signal_sender_for_testing(std::function<int(pid_t pid, int signal)> send);

}  // namespace hubwarden
