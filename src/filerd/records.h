// The argument records the control client sends with server commands, and
// the state record sent back. Records are read exactly as the client lays
// them out: 32-bit words in host byte order, counts checked against the
// record's length before any id is read, texts NUL-terminated at the very
// end of the record (a record whose text lacks its NUL is refused).
// Pure functions; safe from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace filerd {

// "dses": word, count n, n session ids, NUL-terminated text.
struct DisconnectRecord {
  uint32_t word = 0;
  std::vector<uint32_t> session_ids;
  std::string text;
};

// "shut": grace period in minutes, NUL-terminated text.
struct ShutdownRecord {
  uint32_t grace_minutes = 0;
  std::string text;
};

// "smes": count n, n session ids, NUL-terminated text.
struct MessageRecord {
  std::vector<uint32_t> session_ids;
  std::string text;
};

// Each returns nullopt for a record that is too short, whose count does not
// fit its length, or whose text is not NUL-terminated at its end.
std::optional<DisconnectRecord> parse_disconnect_record(std::string_view data);
std::optional<ShutdownRecord> parse_shutdown_record(std::string_view data);
std::optional<MessageRecord> parse_message_record(std::string_view data);
// "ctim": at least one word, the first is the timer (ignored beyond it).
std::optional<uint32_t> parse_word_record(std::string_view data);

// Builders, for the client side of tests and tools.
std::string make_disconnect_record(uint32_t word, const std::vector<uint32_t>& ids, std::string_view text);
std::string make_shutdown_record(uint32_t grace_minutes, std::string_view text);
std::string make_message_record(const std::vector<uint32_t>& ids, std::string_view text);
std::string make_word_record(uint32_t word);

struct ServerState {
  bool running = false;
  uint32_t pid = 0;
  uint32_t minutes_to_stop = 0;
};

// The 24-byte "stax" record (layout in codes.h).
std::string encode_state_record(const ServerState& state);

// The 32-bit word at offset in data (host order); nullopt past the end.
std::optional<uint32_t> word_at(std::string_view data, size_t offset);

}  // namespace filerd
