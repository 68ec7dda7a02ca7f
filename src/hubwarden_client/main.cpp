// hubwarden: the administrators' command-line client of hubwardend.
#include <curl/curl.h>

#include <string>
#include <vector>

#include "hubwarden_client/client.h"
#include "hubwarden_client/terminal.h"

int main(int argc, char** argv) {
  if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return hubwarden_client::kExitTransport;
  hubwarden_client::ClientIo io = hubwarden_client::system_io();
  int status = hubwarden_client::run_client(std::vector<std::string>(argv + 1, argv + argc), io);
  curl_global_cleanup();
  return status;
}
