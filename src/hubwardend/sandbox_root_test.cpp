// The host against a sandbox root: requests that would change the machine
// (here, its clock) change only the sandbox, and the module's files stay
// inside the root whatever links the sandbox holds.
#include <gtest/gtest.h>
#include <time.h>

#include <filesystem>
#include <sstream>

#include "hubwardend/cli.h"
#include "platform/file_util.h"
#include "platform/linux/basics_test_support.h"
#include "plist/codec.h"

namespace hubwardend {
namespace {

namespace fs = std::filesystem;

std::string record(std::initializer_list<std::pair<const char*, const char*>> attributes) {
  plist::Dict dict;
  for (const auto& [name, value] : attributes)
    dict.set(std::string("dsAttrTypeStandard:") + name, plist::Value(plist::Array{plist::Value(value)}));
  return plist::write_xml(plist::Value(std::move(dict)));
}

class SandboxRootTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string directory = root_ + "/var/db/hubwarden/directory";
    ASSERT_TRUE(platform::write_file_atomically(directory + "/users/admin.plist",
                                                record({{"RecordName", "admin"}, {"PrimaryGroupID", "20"}})));
    ASSERT_TRUE(platform::write_file_atomically(
        directory + "/groups/admin.plist",
        record({{"RecordName", "admin"}, {"PrimaryGroupID", "80"}, {"GroupMembership", "admin"}})));
  }
  // The reply to request, run as the sandbox's administrator.
  plist::Dict request(const std::string& text) {
    std::istringstream in(text);
    std::ostringstream out, err;
    int status = run_cli({"hubwardend", "request", "--root", root_, "--user", "admin"}, in, out, err);
    EXPECT_EQ(status, kExitOk) << err.str();
    plist::Parsed reply = plist::parse_xml(out.str());
    EXPECT_TRUE(reply.ok()) << out.str();
    const plist::Dict* dict = reply.value.as_dict();
    return dict ? *dict : plist::Dict();
  }

  // The text form has no numbers, so settings requests are XML.
  static std::string write_settings(plist::Dict configuration) {
    return plist::write_xml(plist::Value(plist::Dict{{"command", "writeSettings"}, {"configuration", configuration}}));
  }
  static std::string set_clock(int64_t seconds) { return write_settings({{"currentTime", seconds}}); }

  // The clock as a settings reply reports it.
  static double current_time(const plist::Dict& reply) {
    const plist::Dict* settings = reply.find_dict("configuration");
    const plist::Value* t = settings ? settings->find_number("currentTime") : nullptr;
    return t ? t->to_double().value_or(-1) : -1;
  }

  platform::testing::ScratchDir base_;
  const std::string root_ = base_.path("/root");
};

TEST_F(SandboxRootTest, SettingTheClockMovesTheSandboxClockOnly) {
  plist::Dict reply = request(set_clock(86400));
  ASSERT_TRUE(reply.find_number("writeStatus")) << plist::write_xml(plist::Value(reply));
  EXPECT_EQ(reply.find_number("writeStatus")->to_int64(), 0);
  EXPECT_NEAR(current_time(reply), 86400, 5);
  EXPECT_GT(::time(nullptr), 1000000000) << "the machine's clock was stepped";

  // A later request (a new host over the same root) sees the sandbox time.
  EXPECT_NEAR(current_time(request("{command = readSettings;}")), 86400, 5);

  // Back to the present, and no time to skip: a difference of five seconds
  // or less is left alone.
  double now = static_cast<double>(::time(nullptr));
  request(set_clock(static_cast<int64_t>(now)));
  EXPECT_NEAR(current_time(request("{command = readSettings;}")), now, 5);
}

TEST_F(SandboxRootTest, TheSettingsFileStaysInsideTheRoot) {
  // The sandbox's preferences folder is a link to a folder outside it.
  const std::string outside = base_.path("/outside");
  fs::create_directories(outside);
  fs::create_directories(root_ + "/Library");
  fs::create_symlink(outside, root_ + "/Library/Preferences");

  const std::string write = write_settings({{"enableClientDiscovery", false}});
  request(write);
  EXPECT_TRUE(fs::is_empty(outside)) << "a file was written outside the root";

  // The same request with a real folder there writes the file in it.
  fs::remove(root_ + "/Library/Preferences");
  request(write);
  EXPECT_TRUE(fs::exists(root_ + "/Library/Preferences/com.marlo.hubwarden_info.plist"));
  EXPECT_TRUE(fs::is_empty(outside));
}

}  // namespace
}  // namespace hubwardend
