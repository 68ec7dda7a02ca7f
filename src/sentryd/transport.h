// How a composed mail leaves the machine: through the local mail system's
// sendmail program, or straight to an SMTP relay. A transport is used by
// one thread at a time (the delivery thread); each call either hands the
// mail over or says why not, within the transport's time limit.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace sentryd {

struct OutgoingMail {
  std::string rule;  // for log lines
  std::string from;  // envelope sender
  std::vector<std::string> to;
  std::string message;  // the whole RFC 5322 text
};

class Transport {
 public:
  Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;
  virtual ~Transport() = default;

  // Hands mail over. Returns "" on success, else what went wrong. Gives up
  // at the transport's time limit, and soon after cancel turns true.
  virtual std::string send(const OutgoingMail& mail, const std::atomic<bool>& cancel) = 0;
};

// Runs program -t -oi with the message on standard input, an empty
// environment but for PATH, and kills it at limit.
std::unique_ptr<Transport> make_sendmail_transport(std::string program, std::chrono::seconds limit);

// Speaks SMTP to relay ("host:port", or a full smtp:// or smtps:// URL)
// through libcurl, giving up on connecting after connect_limit and on the
// whole exchange after total_limit. Call first from the main thread: it
// initialises libcurl.
std::unique_ptr<Transport> make_smtp_transport(std::string relay, std::chrono::seconds connect_limit,
                                               std::chrono::seconds total_limit);

}  // namespace sentryd
