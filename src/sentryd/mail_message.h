// Composition of the monitor's mails as RFC 5322 messages.
//
// Subjects and bodies carry event values, which are untrusted: whatever
// they hold, a header stays one header (control characters become blanks,
// anything beyond printable ASCII is sent as RFC 2047 encoded words) and
// the body is quoted-printable UTF-8, so no line is too long and no lone
// dot or stray CR ends or splits anything. Addresses are accepted only in
// the plain local@domain form. Pure functions, safe from any thread.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace sentryd {

// True for a plain address local@domain of printable ASCII, without blanks,
// quotes, angle brackets or other specials, not starting with '-', at most
// 254 bytes.
bool is_usable_address(std::string_view address);

// The usable addresses of a comma-separated list, blanks around them
// ignored, in order. Unusable ones go to *rejected when it is given.
std::vector<std::string> parse_recipients(std::string_view list, std::vector<std::string>* rejected);

struct MailHeaders {
  std::string from;
  std::vector<std::string> to;
  std::string subject;
  std::time_t date = 0;
  std::string message_id;  // with its angle brackets
};

// The whole message, lines ending in CRLF.
std::string compose_message(const MailHeaders& headers, std::string_view body);

// A fresh "<...@host>" identifier: unique within this host.
std::string make_message_id(std::string_view host);

// This machine's host name, reduced to the characters a domain may hold;
// "localhost" when it has none.
std::string local_host_name();

}  // namespace sentryd
