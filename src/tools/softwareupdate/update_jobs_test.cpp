#include "tools/softwareupdate/update_jobs.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "plist/codec.h"
#include "tools/softwareupdate/atomic_file.h"

namespace softwareupdate {
namespace {

// Answers apt tool runs by their subcommand and records every argument
// vector, so a test sees exactly what would have reached apt.
class ScriptedTasks : public platform::Tasks {
 public:
  std::map<std::string, platform::TaskResult> replies;
  std::vector<std::vector<std::string>> calls;

  platform::TaskResult run(const std::string&, const std::vector<std::string>& args, const std::string&,
                           double) override {
    calls.push_back(args);
    std::string key = args.at(1);
    if (key == "policy" && ++policy_runs_ > 1) key = "policy-after";
    auto it = replies.find(key);
    if (it != replies.end()) return it->second;
    return {true, 0, false, "", ""};
  }
  std::optional<int> spawn_detached(const std::string&, const std::vector<std::string>&) override {
    return std::nullopt;
  }
  // Newer members of the interface; not marked override so the fake builds
  // against the interface with or without them.
  platform::DetachedLaunch launch_detached(const std::string&, const std::vector<std::string>&) { return {}; }
  bool has_tool(const std::string&) { return true; }

 private:
  int policy_runs_ = 0;
};

platform::TaskResult ok(std::string out) { return {true, 0, false, std::move(out), ""}; }

class UpdateJobs : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = std::filesystem::temp_directory_path() / ("swupdate_test." + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_);
    options_.quiet = true;
    options_.status_file = (dir_ / "status.plist").string();
    options_.ignore_file = (dir_ / "lists/ignored.plist").string();
    options_.reboot_required_file = (dir_ / "reboot-required").string();
    options_.apt_options = {"Dir=/scratch/"};
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  plist::Dict status() {
    std::ifstream in(options_.status_file);
    std::stringstream text;
    text << in.rdbuf();
    plist::Parsed parsed = plist::parse_xml(text.str());
    return parsed.ok() && parsed.value.is_dict() ? *parsed.value.as_dict() : plist::Dict{};
  }

  std::filesystem::path dir_;
  Options options_;
  ScriptedTasks tasks_;
  std::ostringstream out_, err_;
};

TEST_F(UpdateJobs, InstallReportsEachPackageAndEndsDoneEvenWhenAptFails) {
  options_.mode = Mode::kInstall;
  options_.names = {"hw-notes", "gone", "current", "stuck"};
  tasks_.replies["policy"] =
      ok("hw-notes:\n  Installed: 1.0\n  Candidate: 2.0\ncurrent:\n  Installed: 3\n  Candidate: 3\n"
         "stuck:\n  Installed: 1\n  Candidate: 2\n");
  tasks_.replies["policy-after"] = ok("hw-notes:\n  Installed: 2.0\n  Candidate: 2.0\nstuck:\n  Installed: 1\n");
  tasks_.replies["install"] = {true, 100, false, "", "E: Sub-process /usr/bin/dpkg returned an error code (1)\n"};

  EXPECT_EQ(run_job(options_, tasks_, 4242, out_, err_), 1);
  EXPECT_EQ(err_.str(),
            "softwareupdate: apt-get install failed: Sub-process /usr/bin/dpkg returned an error code (1)\n");

  // Only the packages that need it reach apt, after our options and "--".
  auto install = std::find_if(tasks_.calls.begin(), tasks_.calls.end(), [](auto& c) { return c[1] == "install"; });
  ASSERT_NE(install, tasks_.calls.end());
  std::vector<std::string> tail(install->end() - 5, install->end());
  EXPECT_EQ(tail, (std::vector<std::string>{"-o", "Dir=/scratch/", "--", "hw-notes", "stuck"}));

  plist::Dict s = status();
  EXPECT_EQ(s.at_index(0).first, "pid");
  EXPECT_EQ(*s.find("pid"), plist::Value(4242));
  EXPECT_EQ(*s.find_string("phase"), "DONE");
  EXPECT_EQ(*s.find("restartRequired"), plist::Value(false));
  const plist::Array* results = s.find_array("phaseResultsArray");
  ASSERT_NE(results, nullptr);
  std::vector<std::string> phases;
  for (const plist::Value& e : *results) phases.push_back(*e.as_dict()->find_string("phase"));
  EXPECT_EQ(phases, (std::vector<std::string>{"DONE", "NOT_FOUND", "DONE", "FAILED"}));
}

TEST_F(UpdateJobs, ScanSurvivesAFailedRefreshAndRefusesBadNamesUpFront) {
  options_.mode = Mode::kScan;
  tasks_.replies["update"] = {true, 100, false, "", "E: Some index files failed to download.\n"};
  tasks_.replies["dist-upgrade"] = ok("Inst hw-notes [1.0] (2.0 local [all])\n");
  EXPECT_EQ(run_job(options_, tasks_, 7, out_, err_), 1);
  plist::Dict s = status();
  EXPECT_EQ(*s.find_string("phase"), "DONE");
  EXPECT_EQ(s.find_array("phaseResultsArray")->size(), 1u);
  EXPECT_EQ(*s.find_string("error"), "apt-get update failed: Some index files failed to download.");

  // Nothing is up to date when apt could not tell: a failed simulation is
  // "DONE" with an error, never "UPTODATE".
  tasks_.replies["update"] = ok("");
  tasks_.replies["dist-upgrade"] = {true, 100, false, "", "E: broken\n"};
  EXPECT_EQ(run_job(options_, tasks_, 7, out_, err_), 1);
  EXPECT_EQ(*status().find_string("phase"), "DONE");

  size_t calls = tasks_.calls.size();
  options_.mode = Mode::kInstall;
  options_.names = {"hw-notes", "-rf"};
  EXPECT_EQ(run_job(options_, tasks_, 7, out_, err_), 2);
  EXPECT_EQ(tasks_.calls.size(), calls);
}

TEST_F(UpdateJobs, IgnoreListAndAtomicReplace) {
  options_.mode = Mode::kIgnore;
  options_.names = {"b-pkg", "a-pkg", "b-pkg"};
  ASSERT_EQ(run_job(options_, tasks_, 1, out_, err_), 0);  // creates the list's folder
  options_.names = {"a-pkg", "c-pkg"};
  ASSERT_EQ(run_job(options_, tasks_, 1, out_, err_), 0);
  EXPECT_EQ(load_ignore_list(options_.ignore_file).names, (std::vector<std::string>{"b-pkg", "a-pkg", "c-pkg"}));
  EXPECT_TRUE(tasks_.calls.empty());

  options_.mode = Mode::kResetIgnored;
  options_.names.clear();
  ASSERT_EQ(run_job(options_, tasks_, 1, out_, err_), 0);
  IgnoreList reset = load_ignore_list(options_.ignore_file);
  EXPECT_TRUE(reset.names.empty());
  EXPECT_EQ(reset.error, "");

  std::ofstream(options_.ignore_file) << "<plist><dict/></plist>";
  EXPECT_NE(load_ignore_list(options_.ignore_file).error, "");
  EXPECT_EQ(load_ignore_list((dir_ / "absent.plist").string()).error, "");

  // A failed replace leaves the old file and no temporary beside it.
  std::string path = (dir_ / "target").string();
  ASSERT_EQ(replace_file_atomically(path, "old"), "");
  ASSERT_EQ(replace_file_atomically(path, "new"), "");
  std::filesystem::create_directory(dir_ / "blocked");
  std::string blocked = (dir_ / "blocked").string();
  EXPECT_NE(replace_file_atomically(blocked, "x"), "");  // rename over a folder fails
  EXPECT_NE(replace_file_atomically((dir_ / "no/such/dir/f").string(), "x"), "");
  size_t files = 0;
  for (const auto& e : std::filesystem::directory_iterator(dir_)) files += e.is_regular_file() ? 1 : 0;
  EXPECT_EQ(files, 1u);
  std::ifstream in(path);
  std::string contents;
  in >> contents;
  EXPECT_EQ(contents, "new");
}

}  // namespace
}  // namespace softwareupdate
