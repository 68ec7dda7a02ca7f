// The file server's control exchange on Linux: one request and one reply per
// call over a Unix stream socket, shared by the control client in the module
// and the file server's own control daemon.
//
// A frame is a fixed header followed by a body of fields:
//
//   header (24 bytes, integers little-endian)
//     uint32 magic           kFilerMagic
//     int32  id              request 0..7, reply = request id + 100
//     uint32 body_length     bytes after the header, at most kMaxFilerBody
//     uint32 descriptors     0, or 1 when one descriptor rides along
//                            (SCM_RIGHTS on the frame's first byte)
//     uint8  ndr[8]          data representation: kFilerNdr
//   body: the message's fields in order, each either
//     word   uint32
//     bytes  uint32 length, then that many bytes (the out-of-line data)
//
// Message shapes (W = word, B = bytes, D = the passed descriptor):
//   0 get server attribute   W code, W capacity
//   1 set server attribute   B data, W code, W length
//   2 send server command    B data, W code, W length, W reply capacity
//   3 create object iterator W kind
//   4 get iterator attribute W iterator, W code, W capacity
//   5 advance iterator       W iterator
//   6 destroy iterator       W iterator
//   7 register notify port   B data, D, W code, W length
//   100, 102, 104 replies    W return code (as int32), B data
//   103 reply                W return code, W iterator
//   101, 105, 106, 107       W return code
//
// Decoding checks every length against what was received and the shape
// against the id, so a frame that lies is refused, never trusted.
//
// Functions here are stateless and safe from any thread; a descriptor must
// be used by one thread at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "platform/unique_fd.h"

namespace platform {

// Where the file server's control socket lives (resolved under the root).
constexpr const char* kFilerSocket = "/run/hubwarden/filer.sock";

constexpr uint32_t kFilerMagic = 0x43465748;  // "HWFC" as little-endian bytes
constexpr uint8_t kFilerNdr[8] = {0, 0, 0, 0, 1, 0, 0, 0};
constexpr size_t kFilerHeaderBytes = 24;
// Large enough for a 1 MB message text plus its record.
constexpr uint32_t kMaxFilerBody = (1u << 20) + 64 * 1024;
constexpr int32_t kFilerReplyOffset = 100;
// How long one send or one receive may take.
constexpr std::chrono::milliseconds kFilerTimeLimit{10000};

enum FilerMessageId : int32_t {
  kFilerGetServerAttribute = 0,
  kFilerSetServerAttribute = 1,
  kFilerSendServerCommand = 2,
  kFilerCreateObjectIterator = 3,
  kFilerGetIterAttribute = 4,
  kFilerAdvanceIterator = 5,
  kFilerDestroyIterator = 6,
  kFilerRegisterNotifyPort = 7,
};

using FilerField = std::variant<uint32_t, std::string>;

struct FilerMessage {
  int32_t id = -1;
  std::vector<FilerField> fields;
  UniqueFd descriptor;  // only for kFilerRegisterNotifyPort
};

enum class FilerWireStatus {
  kOk,
  kTimedOut,   // the time limit passed before the frame was whole
  kClosed,     // the peer closed (before or in the middle of a frame)
  kMalformed,  // bad magic or NDR, unknown id, wrong shape, lengths that lie
  kTooLarge,   // body over kMaxFilerBody (refused before reading it)
  kIoError,    // any other failure of the socket; errno is kept
};

// true when message's fields match the shape of its id (see above).
bool filer_shape_valid(const FilerMessage& message);

// Sends message whole within limit. Refuses (kMalformed) a message whose
// shape does not fit its id. Never raises SIGPIPE.
FilerWireStatus send_filer_message(int fd, const FilerMessage& message,
                                   std::chrono::milliseconds limit = kFilerTimeLimit);

// Receives one whole frame within limit into *message (replaced). A
// descriptor that arrives with a frame that does not carry one is closed.
FilerWireStatus receive_filer_message(int fd, FilerMessage* message,
                                      std::chrono::milliseconds limit = kFilerTimeLimit);

// Encodes without sending, and decodes a whole frame held in memory (for
// fuzzing and tests). decode ignores descriptors.
std::string encode_filer_frame(const FilerMessage& message);
FilerWireStatus decode_filer_frame(std::string_view frame, FilerMessage* message);

// Connects to the control socket at path (already resolved), close-on-exec,
// within the time limit. An invalid UniqueFd when nothing listens there.
UniqueFd connect_filer_socket(const std::string& path);

}  // namespace platform
