// Writes diagnostics to standard error, a whole line per write so lines of
// the intake loop and the delivery thread never interleave.
#include "sentryd/log.h"

#include <unistd.h>

namespace sentryd {

void log_line(const std::string& line) {
  std::string text = "sentryd: " + line + "\n";
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = ::write(STDERR_FILENO, p, left);
    if (n <= 0) return;
    p += n;
    left -= static_cast<size_t>(n);
  }
}

}  // namespace sentryd
