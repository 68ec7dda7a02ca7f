#include "hubwarden_client/output.h"

#include "hubwarden_client/table.h"
#include "plist/codec.h"
#include "plist/json.h"

namespace hubwarden_client {

std::string raw_text(const plist::Dict& reply, OutputMode mode) {
  if (mode == OutputMode::kXml) return plist::write_xml(plist::Value(reply));
  return plist::write_json(plist::Value(reply), true) + "\n";
}

int report(const Answer& answer, const std::string& command, OutputMode mode, const Renderer& render, ClientIo& io) {
  switch (answer.kind) {
    case Answer::Kind::kFailed:
      *io.err << "hubwarden: " << answer.message << "\n";
      return kExitTransport;
    case Answer::Kind::kNoReply:
      *io.err << "hubwarden: " << command
              << ": no reply (an unknown command, or a required key missing or of the wrong type)\n";
      return kExitErrorReply;
    case Answer::Kind::kReply:
      break;
  }
  const plist::Dict& reply = answer.reply;
  if (mode != OutputMode::kTable) *io.out << raw_text(reply, mode);
  if (const plist::Value* error = reply.find("error")) {
    *io.err << "hubwarden: " << command << ": " << format_value(*error) << "\n";
    return kExitErrorReply;
  }
  View view = render(reply);
  if (mode == OutputMode::kTable) *io.out << view.out;
  if (!view.err.empty()) *io.err << "hubwarden: " << command << ": " << view.err;
  return view.failed ? kExitErrorReply : kExitOk;
}

}  // namespace hubwarden_client
