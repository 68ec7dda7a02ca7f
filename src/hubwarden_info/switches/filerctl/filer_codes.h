// Status codes of the file server's control client (its four-character
// codes are the exchange's, in platform/filer_codes.h). A status is 0 on success, one of the kFiler* codes below, or
// one of the transport's own codes (kFilerTransport*), all negative.
#pragma once

#include <cstdint>

#include "platform/filer_codes.h"

namespace hubwarden {

constexpr int kFilerTruncated = -10001;          // reply larger than the caller's buffer
constexpr int kFilerJobNotEnabled = -10010;      // root caller, file server job not enabled
constexpr int kFilerBadArgument = -10011;        // bad argument, or a caller that is not root
constexpr int kFilerEnableRefused = -10019;      // enable asked by a caller that is not root
constexpr int kFilerJobToolFailed = -10050;      // the job could not be switched at all
constexpr int kFilerServerUnreachable = -10056;  // no server, or it went away

// The transport's own failures, other than a server that is gone.
constexpr int kFilerTransportTimedOut = -10101;  // no whole reply within the limit
constexpr int kFilerTransportBadReply = -10102;  // a reply of the wrong id or shape
constexpr int kFilerTransportIoError = -10103;   // any other socket failure
constexpr int kFilerTransportNoRight = -10104;   // the notification port could not be passed

// The file server's job label.
constexpr const char* kFilerJobLabel = "com.marlo.FilerServer";

}  // namespace hubwarden
