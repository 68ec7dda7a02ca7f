// Reading the file server's state word and recycling it.
#include "switches/filer_state.h"

#include <cstring>

#include "hubwarden_info/switches/filerctl/filer_codes.h"
#include "hubwarden_info/switches/filerctl/filer_rpc.h"

namespace hubwarden {

namespace {

// Where the state word sits in the state record; the other fields are the
// server's business.
constexpr uint32_t kStateWordOffset = 4;

}  // namespace

uint32_t get_filer_state(FilerPort* out) {
  FilerPort local;
  FilerPort& port = out != nullptr ? *out : local;
  port = GetFilerServerPort();
  if (!port) return 0;
  unsigned char record[platform::kFilerStateRecordBytes] = {};
  uint32_t length = 0;
  if (SCGetServerAttribute(port, platform::kFilerStateAttribute, &length, record, sizeof record) != 0) return 0;
  // A short record from a confused server has no state word.
  if (length < kStateWordOffset + sizeof(uint32_t)) return 0;
  uint32_t state = 0;
  std::memcpy(&state, record + kStateWordOffset, sizeof state);
  return state;
}

void recycle_filer() {
  FilerPort port;
  if (get_filer_state(&port) != platform::kFilerRunning) return;
  // The argument byte means nothing to the server; the reply is not read.
  const unsigned char argument = 0;
  unsigned char reply = 0;
  uint32_t reply_length = 0;
  SCSendServerCommand(port, platform::kFilerRecycleCommand, &argument, sizeof argument, &reply_length, &reply,
                      sizeof reply);
}

}  // namespace hubwarden
