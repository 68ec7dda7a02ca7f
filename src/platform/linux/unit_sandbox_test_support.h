// The unit-file tests' sandbox is the shared scratch root; this name stays
// for the tests that include it.
#pragma once

#include "platform/linux/basics_test_support.h"

namespace platform::testing {

using UnitSandbox = ScratchRoot;

}  // namespace platform::testing
