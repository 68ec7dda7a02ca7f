// Fuzz target for the file server's control frames: whatever decodes must
// encode back to the very same bytes, since the frame has one spelling.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/filer_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view frame(reinterpret_cast<const char*>(data), size);
  platform::FilerMessage message;
  if (platform::decode_filer_frame(frame, &message) != platform::FilerWireStatus::kOk) return 0;
  if (!platform::filer_shape_valid(message)) abort();
  if (platform::encode_filer_frame(message) != frame) abort();
  return 0;
}
