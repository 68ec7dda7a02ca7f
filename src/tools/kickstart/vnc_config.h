// Text edits of the VNC server's configuration files. The system-wide
// mandatory settings file is read by the server's wrapper as a Perl script,
// one "$Name = value;" statement per setting; the users file maps displays
// to the users whose sessions they show, one ":N=user" line each. Both may
// hold an administrator's own lines, which every edit keeps. Pure
// functions; thread-safe.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kickstart/command_line.h"

namespace kickstart {

// existing with the access settings replaced: earlier statements setting
// $SecurityTypes, $PlainUsers or $localhost (and the comment this function
// writes above them) are dropped, everything else kept in order, and new
// statements appended that ask for a system login (PAM, over TLS) and let in
// the given users, or everyone for Access::kAllUsers. users must have passed
// is_valid_user_name.
std::string with_access_settings(std::string_view existing, Access access, const std::vector<std::string>& users);

// The user that display (":1") is mapped to in the users file text, if any.
std::optional<std::string> display_user(std::string_view users_file, std::string_view display);

// users_file with the line "display=user" appended, keeping every line.
std::string with_display_user(std::string_view users_file, std::string_view display, std::string_view user);

// The display a templated VNC unit serves: its instance (":1" for
// "tigervncserver@:1.service"), or nullopt when the instance is not ":N".
std::optional<std::string> unit_display(std::string_view unit);

// The members of the group named name in the text of a group(5) file.
std::vector<std::string> group_file_members(std::string_view group_file, std::string_view name);

}  // namespace kickstart
