// Editing the pretty host name in the text of /etc/machine-info, a file of
// shell-style NAME=VALUE lines that systemd and other programs read. Pure
// functions, safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace platform::machine_info {

// value as the file must hold it: bare when it is made of characters no
// shell or env-file reader treats specially, else in double quotes with
// \ " $ and ` escaped. REQUIRES: value holds no control characters.
std::string quote_value(std::string_view value);

// text with PRETTY_HOSTNAME set to name: the first assignment is replaced
// where it stands and any later ones removed, so that readers taking the
// first or the last value agree; appended (after a line end, if the text
// lacks one) when there is none. Every other line is kept byte for byte.
std::string with_pretty_hostname(std::string_view text, std::string_view name);

}  // namespace platform::machine_info
