#include "tools/softwareupdate/command_line.h"

#include <gtest/gtest.h>

namespace softwareupdate {
namespace {

TEST(CommandLine, TheModulesFormsAndItsMistakes) {
  // Names after the options, as the module lays them out.
  CommandLine c = parse_command_line({"-q", "-i", "-f", "/run/s.plist", "--lang", "fr", "a-pkg", "b-pkg"});
  ASSERT_TRUE(c.ok()) << c.error;
  EXPECT_EQ(c.options.mode, Mode::kInstall);
  EXPECT_TRUE(c.options.quiet);
  EXPECT_EQ(c.options.status_file, "/run/s.plist");
  EXPECT_EQ(c.options.language, "fr");
  EXPECT_EQ(c.options.names, (std::vector<std::string>{"a-pkg", "b-pkg"}));

  c = parse_command_line({"-l", "-o", "Dir=/x/", "--apt-option=Debug::NoLocking=1", "--ignore-file=/i"});
  ASSERT_TRUE(c.ok()) << c.error;
  EXPECT_EQ(c.options.apt_options, (std::vector<std::string>{"Dir=/x/", "Debug::NoLocking=1"}));
  EXPECT_EQ(c.options.ignore_file, "/i");

  // After "--" a dash is a name (refused later as a package name).
  c = parse_command_line({"--ignore", "--", "-rf"});
  ASSERT_TRUE(c.ok());
  EXPECT_EQ(c.options.names, (std::vector<std::string>{"-rf"}));

  EXPECT_EQ(parse_command_line({}).options.mode, Mode::kHelp);
  for (std::vector<std::string> bad :
       std::vector<std::vector<std::string>>{{"-i", "-rf"},               // a dash word is never a name
                                             {"-i"},                      // nothing to install
                                             {"-l", "pkg"},               // a scan takes no names
                                             {"-l", "-i", "pkg"},         // two modes
                                             {"--reset-ignored", "pkg"},  // nothing to name
                                             {"-l", "-f"},                // missing value
                                             {"-l", "-o", "novalue"},     // not KEY=VALUE
                                             {"-l", "-o", "=v"},          //
                                             {"-q", "pkg"},               // no mode
                                             {"--list=yes"}}) {           // flags take no value
    EXPECT_FALSE(parse_command_line(bad).ok()) << bad.front();
  }
}

}  // namespace
}  // namespace softwareupdate
