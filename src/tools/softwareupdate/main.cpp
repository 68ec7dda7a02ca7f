// softwareupdate: scans for and installs package updates through apt on
// behalf of the administration module, which starts it detached with an
// empty environment and every descriptor closed. It therefore sets up the
// environment apt needs and must never wait for a person.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <string>
#include <vector>

#include "platform/linux/basics.h"
#include "tools/softwareupdate/command_line.h"
#include "tools/softwareupdate/update_jobs.h"

namespace {

// The module closes every descriptor before it executes us, standard
// streams included. Left closed, the first files and pipes we open would
// become "standard output" and collect whatever is printed there.
void reopen_standard_streams() {
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      int null_fd = ::open("/dev/null", O_RDWR);
      if (null_fd > 2) ::close(null_fd);
    }
  }
}

void prepare_environment() {
  ::setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  // apt's output is parsed; its labels must be the untranslated ones.
  ::setenv("LANG", "C.UTF-8", 1);
  ::setenv("LC_ALL", "C.UTF-8", 1);
  // Nothing may prompt: debconf, the change-log viewer and the
  // service-restart helper each have their own switch.
  ::setenv("DEBIAN_FRONTEND", "noninteractive", 1);
  ::setenv("APT_LISTCHANGES_FRONTEND", "none", 1);
  ::setenv("NEEDRESTART_MODE", "l", 1);
  ::umask(022);
}

}  // namespace

int main(int argc, char** argv) {
  reopen_standard_streams();
  prepare_environment();
  std::vector<std::string> args(argv + (argc > 0 ? 1 : 0), argv + argc);
  softwareupdate::CommandLine command_line = softwareupdate::parse_command_line(args);
  if (!command_line.ok()) {
    std::cerr << "softwareupdate: " << command_line.error << " (see --help)\n";
    return 2;
  }
  std::unique_ptr<platform::Tasks> tasks = platform::make_process_tasks();
  return softwareupdate::run_job(command_line.options, *tasks, static_cast<int>(::getpid()), std::cout, std::cerr);
}
