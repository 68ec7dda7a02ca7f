// Argument and input checks of the command line; the calls themselves are
// covered end to end by scripts/cli_test against the built program.
#include "hubwardend/cli.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>

#include "platform/file_util.h"

namespace hubwardend {
namespace {

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwardend-cli-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  int run(std::vector<std::string> args, const std::string& input = "") {
    args.insert(args.begin(), "hubwardend");
    std::istringstream in(input);
    out_.str("");
    err_.str("");
    return run_cli(args, in, out_, err_);
  }

  std::string dir_;
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
  const std::string context = dir_ + "/context.plist";
  const std::string root[] = {"--root", dir_, "--context", context};
  auto with = [&](std::vector<std::string> tail) {
    std::vector<std::string> args(std::begin(root), std::end(root));
    args.insert(args.begin(), tail.front());
    args.insert(args.end(), tail.begin() + 1, tail.end());
    return args;
  };

  EXPECT_EQ(run(with({"request"}), "<plist><dict>"), kExitUnusable);
  EXPECT_NE(err_.str().find("standard input"), std::string::npos);
  EXPECT_EQ(run(with({"request"}), "<plist version=\"1.0\"><array/></plist>"), kExitUnusable);
  EXPECT_NE(err_.str().find("not a dictionary"), std::string::npos);
  EXPECT_EQ(run(with({"request", dir_ + "/absent.plist"})), kExitUnusable);
  EXPECT_EQ(run(with({"request", dir_})), kExitUnusable) << "a directory is no request";

  ASSERT_TRUE(platform::write_file_atomically(dir_ + "/script.plist", "{command = getState;}"));
  EXPECT_EQ(run(with({"script", dir_ + "/script.plist"})), kExitUnusable);
  EXPECT_NE(err_.str().find("not an array"), std::string::npos);

  EXPECT_EQ(run({"request", "--root", dir_ + "/nowhere"}, "{command = getState;}"), kExitUnusable);
  EXPECT_NE(err_.str().find("not a directory"), std::string::npos);

  // A context path that names a directory is refused before anything runs.
  ASSERT_TRUE(platform::make_directories(dir_ + "/ctxdir"));
  EXPECT_EQ(run({"request", "--root", dir_, "--context", dir_ + "/ctxdir"}, "{command = getState;}"), kExitUnusable);

  EXPECT_FALSE(platform::file_exists(context));
  EXPECT_TRUE(out_.str().empty());
}

}  // namespace
}  // namespace hubwardend
