// sentryd: the event monitor that mails the administrator. See monitor.h.
#include <string>
#include <vector>

#include "sentryd/config.h"
#include "sentryd/log.h"
#include "sentryd/monitor.h"

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  std::string error;
  std::optional<sentryd::Options> options = sentryd::parse_command_line(args, &error);
  if (!options) {
    sentryd::log_line(error);
    sentryd::log_line("usage: sentryd [--root DIR] [--rules DIR] [--socket PATH] [--config FILE] [--foreground]");
    return 2;
  }
  return sentryd::run_monitor(*options);
}
