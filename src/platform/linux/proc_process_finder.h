// The process finder over /proc: comm and the exe link of each process.
#pragma once

#include <memory>
#include <string>

#include "platform/process_finder.h"

namespace platform {

// proc_dir stands in for "/proc" so that tests can point it at a scratch
// tree. It is the machine's process table, not the sandbox root's: what a
// sandbox may signal is decided by its process signals, not here.
std::unique_ptr<ProcessFinder> make_proc_process_finder(std::string proc_dir = "/proc");

}  // namespace platform
