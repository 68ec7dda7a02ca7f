// Diagnostics of the event monitor. Lines go to standard error, which
// journald records under systemd; each begins "sentryd: ". Parts that
// report problems take a LogFn so tests can read what was said.
//
// log_line is safe from any thread: one write(2) per line.
#pragma once

#include <functional>
#include <string>

namespace sentryd {

using LogFn = std::function<void(const std::string& line)>;

// Writes "sentryd: " + line + "\n" to standard error.
void log_line(const std::string& line);

}  // namespace sentryd
