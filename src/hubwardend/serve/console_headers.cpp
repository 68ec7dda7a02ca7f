#include "hubwardend/serve/console_headers.h"

namespace hubwardend::serve {

void add_console_headers(HttpResponse* response) {
  response->headers.emplace_back("Content-Security-Policy", kConsoleContentSecurityPolicy);
  response->headers.emplace_back("X-Content-Type-Options", "nosniff");
  response->headers.emplace_back("Referrer-Policy", "no-referrer");
  response->headers.emplace_back("X-Frame-Options", "DENY");
}

}  // namespace hubwardend::serve
