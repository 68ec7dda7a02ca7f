// Argument and input checks of the command line; the calls themselves are
// covered end to end by scripts/cli_test against the built program.
#include "hubwardend/cli.h"

#include <gtest/gtest.h>

#include <sstream>

#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"

namespace hubwardend {
namespace {

class CliTest : public ::testing::Test {
 protected:
  int run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "hubwardend");
    std::istringstream in(input);
    out_.str("");
    err_.str("");
    return run_cli(args, in, out_, err_);
  }

  platform::testing::ScratchDir dir_;
  std::ostringstream out_, err_;
};

TEST_F(CliTest, UsageErrorsExitTwoWithUsage) {
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"serve"},
      {"idle"},
      {"idle", "0", "1"},
      {"script"},
      {"request", "--bogus", "x"},
      {"request", "--root"},
      {"request", "--root="},
      {"request", "a", "b"},
  };
  for (const auto& args : bad) {
    EXPECT_EQ(run(args), kExitUnusable) << (args.empty() ? "" : args.front());
    EXPECT_NE(err_.str().find("usage: hubwardend request"), std::string::npos);
    EXPECT_TRUE(out_.str().empty());
  }
  EXPECT_EQ(run({"--help"}), kExitOk);
  EXPECT_NE(out_.str().find("usage:"), std::string::npos);
}

TEST_F(CliTest, UnusableInputRunsNothingAndTouchesNoFile) {
  const std::string root = dir_.path(""), context = dir_.path("/context.plist");
  ASSERT_TRUE(platform::write_file_atomically(root + "/script.plist", "{command = getState;}"));
  ASSERT_TRUE(platform::make_directories(root + "/ctxdir"));
  struct Case {
    std::vector<std::string> args;
    const char* input;
    const char* reason;
  };
  const Case cases[] = {
      {{"request", "--root", root, "--context", context}, "<plist><dict>", "standard input"},
      {{"request", "--root", root, "--context", context},
       "<plist version=\"1.0\"><array/></plist>",
       "not a dictionary"},
      {{"request", "--root", root, "--context", context, root + "/absent.plist"}, "", ""},
      {{"request", "--root", root, "--context", context, root}, "", ""},  // a directory is no request
      {{"script", "--root", root, "--context", context, root + "/script.plist"}, "", "not an array"},
      {{"request", "--root", root + "/nowhere"}, "{command = getState;}", "not a directory"},
      // A context path that names a directory is refused before anything runs.
      {{"request", "--root", root, "--context", root + "/ctxdir"}, "{command = getState;}", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(run(c.args, c.input), kExitUnusable) << c.args.back();
    EXPECT_NE(err_.str().find(c.reason), std::string::npos) << err_.str();
    EXPECT_TRUE(out_.str().empty()) << c.args.back();
  }
  EXPECT_FALSE(platform::file_exists(context));
}

}  // namespace
}  // namespace hubwardend
