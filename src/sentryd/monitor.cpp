// One thread reads events and evaluates rules; mail goes out on the
// delivery queue's own thread, so a slow relay never delays intake.
#include "sentryd/monitor.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "sentryd/delivery_queue.h"
#include "sentryd/evaluator.h"
#include "sentryd/event_socket.h"
#include "sentryd/mail_message.h"
#include "sentryd/rule_loader.h"

namespace sentryd {
namespace {

constexpr size_t kQueueCapacity = 64;
constexpr auto kConnectLimit = std::chrono::seconds(10);
constexpr auto kDeliveryLimit = std::chrono::seconds(30);
constexpr auto kExitDrain = std::chrono::milliseconds(3000);
// Datagrams read per wake-up before signals are looked at again, so a
// flood cannot keep SIGTERM waiting.
constexpr int kBatch = 256;

std::unique_ptr<Evaluator> load(const Options& options) {
  RuleSet set = load_rules(options.rules_dir, log_line);
  log_line("loaded " + std::to_string(set.rules.size()) + " active rule(s) from " + std::to_string(set.files_read) +
           " file(s) in " + options.rules_dir);
  return std::make_unique<Evaluator>(std::move(set.rules));
}

// Logs the first drop of each kind; the totals come at exit.
void note_drops(const IntakeCounts& now, IntakeCounts* seen) {
  auto first = [](size_t count, size_t* logged, const char* what) {
    if (count > 0 && *logged == 0) log_line(std::string("dropped a datagram: ") + what + " (further ones counted)");
    *logged = count;
  };
  first(now.oversized, &seen->oversized, "longer than 64 KiB");
  first(now.unparsable, &seen->unparsable, "not a property list");
  first(now.not_dictionary, &seen->not_dictionary, "not a dictionary");
  first(now.no_event_type, &seen->no_event_type, "no string \"event_type\"");
}

}  // namespace

int run_monitor(const Options& options) {
  sigset_t handled;
  ::sigemptyset(&handled);
  ::sigaddset(&handled, SIGTERM);
  ::sigaddset(&handled, SIGINT);
  ::sigaddset(&handled, SIGHUP);
  // Blocked before any thread starts, so every thread inherits the mask
  // and the signals reach only the signalfd.
  ::sigprocmask(SIG_BLOCK, &handled, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  int signals = ::signalfd(-1, &handled, SFD_CLOEXEC | SFD_NONBLOCK);
  if (signals < 0) {
    log_line("cannot watch signals");
    return 1;
  }

  std::string error;
  std::optional<EventSocket> port = EventSocket::open(options.socket_path, &error);
  if (!port) {
    log_line(error);
    ::close(signals);
    return 1;
  }
  if (!options.foreground && ::daemon(0, 1) != 0) {
    log_line("cannot detach; staying in the foreground");
  }

  std::string host = local_host_name();
  Config config = load_config(options.config_file, host, log_line);
  std::unique_ptr<Transport> transport = config.smtp_relay.empty()
                                             ? make_sendmail_transport(options.sendmail, kDeliveryLimit)
                                             : make_smtp_transport(config.smtp_relay, kConnectLimit, kDeliveryLimit);
  log_line("listening on " + options.socket_path + "; mail through " +
           (config.smtp_relay.empty() ? options.sendmail : "relay " + config.smtp_relay));
  std::unique_ptr<Evaluator> evaluator = load(options);
  DeliveryQueue queue(std::move(transport), kQueueCapacity, log_line);
  Throttle throttle;
  IntakeCounts logged;
  std::vector<MailRequest> mails;

  bool running = true;
  while (running) {
    struct pollfd fds[2] = {{signals, POLLIN, 0}, {port->fd(), POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) continue;  // EINTR
    struct signalfd_siginfo info;
    while (::read(signals, &info, sizeof info) == sizeof info) {
      if (info.ssi_signo == SIGHUP) {
        evaluator = load(options);
      } else {
        running = false;
      }
    }
    if (!running) break;
    std::optional<plist::Dict> event;
    for (int i = 0; i < kBatch && port->receive(&event); ++i) {
      if (!event) continue;
      mails.clear();
      evaluator->evaluate(*event, throttle, Throttle::Clock::now(), &mails);
      for (MailRequest& mail : mails) {
        MailHeaders headers{config.from, mail.to, mail.subject, std::time(nullptr), make_message_id(host)};
        log_line("rule " + mail.rule + " matched; mail to " + std::to_string(mail.to.size()) + " recipient(s) queued");
        queue.enqueue({mail.rule, config.from, std::move(mail.to), compose_message(headers, mail.body)});
      }
    }
    note_drops(port->counts(), &logged);
  }

  queue.shutdown(kExitDrain);
  const IntakeCounts& c = port->counts();
  log_line("stopping: " + std::to_string(c.received) + " event(s) received, " +
           std::to_string(c.oversized + c.unparsable + c.not_dictionary + c.no_event_type) + " datagram(s) dropped, " +
           std::to_string(queue.sent()) + " mail(s) sent, " + std::to_string(queue.failed()) + " failed");
  ::close(signals);
  return 0;
}

}  // namespace sentryd
