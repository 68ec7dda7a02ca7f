// The process table read from /proc: per process stat and, as asked, status
// or statm, the fd directory and, for region figures, smaps_rollup; host load from loadavg,
// vmstat and diskstats.
//
// Which kernel figure stands behind which fact:
//   state        the stat state letter: R running, S sleeping, D stuck,
//                T and t stopped, Z zombie, I idle, X and x halted; any other
//                letter is unknown
//   command      the stat comm field, taken up to the LAST ')' because a
//                command name may itself hold spaces and parentheses
//   faults       minflt; page-ins: majflt
//   CPU time     utime + stime, converted from clock ticks
//   resident     rss pages times the page size; virtual: vsize
//   uid          the real user of status "Uid:"
//   virtual private  status VmData + VmStk (anonymous data and stacks: the
//                part of the address space no other process can map); the
//                same sum is statm's data figure, read when the owner is not
//                asked for
//   ports        the open descriptors of the fd directory, 0 when it may
//                not be read
//   regions      smaps_rollup Private_Clean + Private_Dirty (resident
//                private) and Shared_Clean + Shared_Dirty (resident shared)
//
// A sample of a few thousand processes must cost less than a ps(1) run, so
// files are read with open/read into stack buffers through a descriptor of
// the proc directory, without streams or per-file allocation.
#pragma once

#include <memory>
#include <string>

#include "platform/process_table.h"

namespace platform {

// proc_dir stands in for "/proc" so that tests can point it at a sandbox.
std::unique_ptr<ProcessTable> make_proc_process_table(std::string proc_dir = "/proc");

}  // namespace platform
