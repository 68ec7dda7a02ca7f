// kickstart: the remote desktop switch the administration module runs
// ("-activate", "-configure -allowAccessFor -specifiedUsers",
// "-deactivate"). The module takes any error output as failure, so this
// program writes to standard error only when something went wrong.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "platform/linux/basics.h"
#include "tools/kickstart/command_line.h"
#include "tools/kickstart/remote_desktop.h"

namespace {

// A caller may start us with standard streams closed; left closed, the
// first file we open would become "standard error" and collect messages.
void reopen_standard_streams() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      int null_fd = ::open("/dev/null", O_RDWR);
      if (null_fd > 2) ::close(null_fd);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  reopen_standard_streams();
  ::umask(022);
  // systemctl's messages are matched by nobody, but they are read by people.
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ::setenv("SYSTEMD_PAGER", "", 1);
  std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  kickstart::CommandLine command_line = kickstart::parse_command_line(args);
  if (!command_line.ok()) {
    std::cerr << "kickstart: " << command_line.error << " (see -help)\n";
    return 2;
  }
  if (command_line.options.help) {
    std::cout << kickstart::usage_text();
    return 0;
  }
  std::unique_ptr<platform::Tasks> tasks = platform::make_process_tasks();
  return kickstart::run_actions(command_line.options, *tasks, std::cout, std::cerr);
}
