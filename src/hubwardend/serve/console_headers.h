// The headers every reply to the web console carries. The console's pages
// run with no inline script or style and talk to this server alone, so the
// content policy can forbid everything else; the other headers keep a
// browser from guessing types, leaking addresses or framing the console
// into someone else's page.
//
// Thread-safety: pure functions.
#pragma once

#include "hubwardend/serve/http_types.h"

namespace hubwardend::serve {

inline constexpr char kConsoleContentSecurityPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
    "font-src 'self'; base-uri 'none'; form-action 'self'; frame-ancestors 'none'";

// Appends the console's security headers to response.
void add_console_headers(HttpResponse* response);

}  // namespace hubwardend::serve
