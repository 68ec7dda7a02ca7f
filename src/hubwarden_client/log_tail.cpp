#include "hubwarden_client/log_tail.h"

#include <algorithm>
#include <limits>

#include "hubwarden_client/output.h"

namespace hubwarden_client {

namespace {

// The daemon never sends more than this in one reply.
constexpr int64_t kMaxWindow = 1 << 20;

struct Window {
  int64_t offset = 0;
  int64_t amount = 0;
  std::string contents;
};

int64_t integer_at(const plist::Dict& d, std::string_view key) {
  const plist::Value* v = d.find(key);
  return v ? v->to_int64().value_or(0) : 0;
}

size_t count_lines(const std::string& text) {
  size_t n = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  return n + (!text.empty() && text.back() != '\n');
}

}  // namespace

std::string last_lines(const std::string& text, int64_t count, bool partial_first) {
  if (count <= 0 || text.empty()) return "";
  size_t start = 0;
  if (partial_first) {
    size_t newline = text.find('\n');
    if (newline == std::string::npos) return "";
    start = newline + 1;
  }
  // Walk back over count line ends; a final line without one counts too.
  size_t end = text.size();
  size_t pos = text.back() == '\n' ? end - 1 : end;
  int64_t seen = 0;
  while (pos > start) {
    size_t newline = text.rfind('\n', pos - 1);
    if (newline == std::string::npos || newline < start) break;
    if (++seen == count) return text.substr(newline + 1);
    pos = newline;
  }
  return text.substr(start);
}

int run_logs(Session& session, const LogOptions& options, OutputMode mode, ClientIo& io) {
  // Any failure ends the command with report()'s message and status.
  int status = kExitOk;
  auto ask = [&](const plist::Dict& request, const std::string& command, plist::Dict* reply) {
    Answer answer = session.send(request);
    if (answer.kind != Answer::Kind::kReply || answer.reply.contains("error")) {
      status = report(
          answer, command, mode, [](const plist::Dict&) { return View{}; }, io);
      return false;
    }
    *reply = std::move(answer.reply);
    return true;
  };

  plist::Dict paths;
  if (!ask(plist::Dict{{"command", "getSystemLogPaths"}}, "getSystemLogPaths", &paths)) return status;
  std::string identifier = options.name + "Log";
  if (!paths.contains(identifier)) identifier = options.name;
  if (!paths.contains(identifier)) {
    std::string known;
    for (const auto& entry : paths) {
      std::string_view name = entry.first;
      if (name.ends_with("Log")) name.remove_suffix(3);
      known += (known.empty() ? "" : ", ") + std::string(name);
    }
    *io.err << "hubwarden: logs: no log \"" << options.name << "\" (known: " << known << ")\n";
    return kExitUsage;
  }

  auto tail = [&](int64_t offset, int64_t amount, Window* window) {
    plist::Dict reply;
    if (!ask(plist::Dict{{"command", "tailFile"}, {"identifier", identifier}, {"offset", offset}, {"amount", amount}},
             "tailFile", &reply))
      return false;
    if (mode != OutputMode::kTable) *io.out << raw_text(reply, mode);
    window->offset = integer_at(reply, "offset");
    window->amount = integer_at(reply, "amount");
    const std::string* contents = reply.find_string("tailContents");
    window->contents = contents ? *contents : "";
    return true;
  };

  // The log's size: an offset past the end is clamped to it.
  Window end;
  if (!tail(std::numeric_limits<int64_t>::max(), 0, &end)) return status;
  const int64_t size = std::max<int64_t>(end.offset, 0);

  if (options.lines > 0) {
    // Grow the window until it holds enough whole lines or the log's start.
    int64_t span = std::clamp<int64_t>(options.lines * 160, 4096, kMaxWindow);
    Window window;
    while (true) {
      int64_t start = std::max<int64_t>(size - span, 0);
      if (!tail(start, size - start, &window)) return status;
      bool at_start = window.offset <= 0;
      if (at_start || span >= kMaxWindow || count_lines(window.contents) > static_cast<size_t>(options.lines)) break;
      span = std::min(span * 4, kMaxWindow);
    }
    if (mode == OutputMode::kTable) *io.out << last_lines(window.contents, options.lines, window.offset > 0);
  }
  io.out->flush();

  if (!options.follow) return kExitOk;
  int64_t position = size;
  while (io.pause(options.poll_milliseconds)) {
    Window window;
    if (!tail(position, kMaxWindow, &window)) return status;
    if (window.offset < position) {
      // The log is shorter than where we were: rotated or truncated.
      *io.err << "hubwarden: logs: the log was truncated; reading it from the start\n";
      position = 0;
      continue;
    }
    if (mode == OutputMode::kTable) *io.out << window.contents;
    io.out->flush();
    position = window.offset + window.amount;
  }
  return kExitOk;
}

}  // namespace hubwarden_client
