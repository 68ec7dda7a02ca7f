#include "platform/byte_amount.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace platform {
namespace {

// The unit steps sit where rounding would otherwise show "1000 KB", and
// nothing a caller can pass (a huge, negative or undefined amount) breaks
// the text.
TEST(ByteAmountTest, UnitsStepAtRoundingBoundariesAndOddInputsStayReadable) {
  const std::pair<double, const char*> cases[] = {
      {0, "0 bytes"},
      {1, "1 byte"},
      {999, "999 bytes"},
      {999.4, "999 bytes"},
      {999.6, "1 KB"},
      {1000, "1 KB"},
      {1049, "1 KB"},
      {1050, "1.1 KB"},
      {1500000, "1.5 MB"},
      {123456789, "123.5 MB"},
      {999949, "999.9 KB"},
      {999960, "1 MB"},
      {2e12, "2 TB"},
      {1e27, "1000 YB"},
      {1e30, "1000000 YB"},
      {-5, "0 bytes"},
      {std::nan(""), "0 bytes"},
      {-std::numeric_limits<double>::infinity(), "0 bytes"},
      {std::numeric_limits<double>::infinity(), "0 bytes"},
  };
  for (const auto& [bytes, text] : cases) EXPECT_EQ(byteAmountString(bytes), text) << bytes;
}

}  // namespace
}  // namespace platform
