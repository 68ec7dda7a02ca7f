// The two Linux signal services: one for a host at the real root, one for a
// host on a sandbox root that must never reach a process outside the tree
// it started.
#pragma once

#include <memory>
#include <string>

#include "platform/signals.h"

namespace platform {

// kill(2), after refusing pids 1 and below, this process and its parent.
std::unique_ptr<ProcessSignals> make_linux_process_signals();

// As above, and in addition refuses every pid that is not a descendant of
// this process, found by following parent links in proc_dir/PID/stat. When
// a link cannot be read the answer is no. The signal goes through a pidfd
// taken before the check, so a number reused meanwhile by another process
// is never signalled.
std::unique_ptr<ProcessSignals> make_sandbox_process_signals(std::string proc_dir = "/proc");

}  // namespace platform
