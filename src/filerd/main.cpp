// hubwarden-filerd: the file server's control daemon, bridged to Samba.
// See server.h (the socket), controller.h (the answers) and samba.h.
#include <signal.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "filerd/config.h"
#include "filerd/controller.h"
#include "filerd/samba.h"
#include "filerd/server.h"
#include "platform/linux/basics.h"

namespace {

void log_line(const std::string& line) { ::syslog(LOG_NOTICE, "%s", line.c_str()); }

}  // namespace

int main(int argc, char** argv) {
  // Under systemd standard error already goes to the journal, where the
  // syslog copy lands too; elsewhere both are wanted.
  ::openlog("hubwarden-filerd", LOG_PID | (std::getenv("JOURNAL_STREAM") ? 0 : LOG_PERROR), LOG_DAEMON);
  std::string error;
  std::optional<filerd::Options> options =
      filerd::load_options(std::vector<std::string>(argv + 1, argv + argc), log_line, &error);
  if (!options) {
    log_line(error);
    log_line(
        "usage: hubwarden-filerd [--config FILE] [--socket PATH] [--smb-conf PATH] [--smbcontrol PATH] "
        "[--smbstatus PATH] [--testparm PATH]");
    return 2;
  }

  // Signals are taken by one thread with sigwait, so they are blocked before
  // any other thread exists; a vanished peer must not kill the daemon.
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  std::unique_ptr<platform::Tasks> tasks = platform::make_process_tasks();
  filerd::SambaTools samba(*tasks, *options, log_line);
  filerd::Controller controller(samba, log_line);
  filerd::Server server(controller, log_line);
  if (!server.listen(options->socket_path, &error)) {
    log_line(error);
    return 1;
  }
  std::thread([&server, stop_signals] {
    int signal_number = 0;
    sigwait(&stop_signals, &signal_number);
    server.stop();
  }).detach();

  log_line("serving " + options->socket_path + " for Samba configured by " + options->smb_conf);
  sd_notify(0, "READY=1");
  server.run();
  sd_notify(0, "STOPPING=1");
  log_line("stopped");
  return 0;
}
