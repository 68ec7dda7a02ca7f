// A number of bytes as text a person reads at a glance, for mails and
// notices: decimal units (1 KB = 1000 bytes, as disks and networks count),
// one decimal place that is dropped when it is zero, and plain bytes below
// one kilobyte:
//
//   0 -> "0 bytes", 1 -> "1 byte", 999 -> "999 bytes", 1000 -> "1 KB",
//   1500000 -> "1.5 MB", 123456789 -> "123.5 MB", 2e12 -> "2 TB"
//
// A value that is not a finite number, or below zero, reads as "0 bytes". Safe
// from any thread.
#pragma once

#include <string>

namespace platform {

std::string byteAmountString(double bytes);

}  // namespace platform
