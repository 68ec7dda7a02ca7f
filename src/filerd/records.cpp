#include "filerd/records.h"

#include <cstdio>
#include <cstring>

#include "filerd/codes.h"

namespace filerd {

std::string fourcc_text(uint32_t code) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    char c = char((code >> shift) & 0xff);
    if (c < 0x20 || c > 0x7e) {
      char hex[16];
      std::snprintf(hex, sizeof hex, "0x%08x", code);
      return hex;
    }
    text.push_back(c);
  }
  return text;
}

std::optional<uint32_t> word_at(std::string_view data, size_t offset) {
  if (offset > data.size() || data.size() - offset < 4) return std::nullopt;
  uint32_t word;
  std::memcpy(&word, data.data() + offset, 4);
  return word;
}

namespace {

// The text from offset to the end, which must end in its NUL; the text is
// what comes before the first NUL.
std::optional<std::string> text_at(std::string_view data, size_t offset) {
  if (offset >= data.size() || data.back() != '\0') return std::nullopt;
  std::string_view rest = data.substr(offset);
  return std::string(rest.substr(0, rest.find('\0')));
}

// count ids from offset, when they fit before the text's NUL.
std::optional<std::vector<uint32_t>> ids_at(std::string_view data, size_t offset, uint32_t count) {
  // At least the terminating NUL follows the ids; compare in 64 bits so a
  // huge count cannot wrap.
  if (uint64_t(offset) + uint64_t(count) * 4 + 1 > data.size()) return std::nullopt;
  std::vector<uint32_t> ids(count);
  if (count) std::memcpy(ids.data(), data.data() + offset, size_t(count) * 4);
  return ids;
}

void put_word(std::string* out, uint32_t word) {
  char bytes[4];
  std::memcpy(bytes, &word, 4);
  out->append(bytes, 4);
}

void put_text(std::string* out, std::string_view text) {
  out->append(text);
  out->push_back('\0');
}

}  // namespace

std::optional<DisconnectRecord> parse_disconnect_record(std::string_view data) {
  std::optional<uint32_t> word = word_at(data, 0), count = word_at(data, 4);
  if (!word || !count) return std::nullopt;
  std::optional<std::vector<uint32_t>> ids = ids_at(data, 8, *count);
  if (!ids) return std::nullopt;
  std::optional<std::string> text = text_at(data, 8 + size_t(*count) * 4);
  if (!text) return std::nullopt;
  return DisconnectRecord{*word, std::move(*ids), std::move(*text)};
}

std::optional<ShutdownRecord> parse_shutdown_record(std::string_view data) {
  std::optional<uint32_t> grace = word_at(data, 0);
  if (!grace) return std::nullopt;
  std::optional<std::string> text = text_at(data, 4);
  if (!text) return std::nullopt;
  return ShutdownRecord{*grace, std::move(*text)};
}

std::optional<MessageRecord> parse_message_record(std::string_view data) {
  std::optional<uint32_t> count = word_at(data, 0);
  if (!count) return std::nullopt;
  std::optional<std::vector<uint32_t>> ids = ids_at(data, 4, *count);
  if (!ids) return std::nullopt;
  std::optional<std::string> text = text_at(data, 4 + size_t(*count) * 4);
  if (!text) return std::nullopt;
  return MessageRecord{std::move(*ids), std::move(*text)};
}

std::optional<uint32_t> parse_word_record(std::string_view data) { return word_at(data, 0); }

std::string make_disconnect_record(uint32_t word, const std::vector<uint32_t>& ids, std::string_view text) {
  std::string out;
  put_word(&out, word);
  put_word(&out, uint32_t(ids.size()));
  for (uint32_t id : ids) put_word(&out, id);
  put_text(&out, text);
  return out;
}

std::string make_shutdown_record(uint32_t grace_minutes, std::string_view text) {
  std::string out;
  put_word(&out, grace_minutes);
  put_text(&out, text);
  return out;
}

std::string make_message_record(const std::vector<uint32_t>& ids, std::string_view text) {
  std::string out;
  put_word(&out, uint32_t(ids.size()));
  for (uint32_t id : ids) put_word(&out, id);
  put_text(&out, text);
  return out;
}

std::string make_word_record(uint32_t word) {
  std::string out;
  put_word(&out, word);
  return out;
}

std::string encode_state_record(const ServerState& state) {
  std::string out;
  put_word(&out, kStateRecordVersion);
  put_word(&out, state.running ? platform::kFilerRunning : kStateStopped);
  put_word(&out, state.running ? state.pid : 0);
  put_word(&out, state.minutes_to_stop);
  put_word(&out, 0);
  put_word(&out, 0);
  return out;
}

}  // namespace filerd
