// Entry point of hubwardend: "serve" runs the long-running daemon; every
// other command is the one-shot command line of cli.cpp.
#include <iostream>
#include <string>
#include <vector>

#include "hubwardend/cli.h"
#include "hubwardend/serve/daemon.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  std::vector<std::string> args(argv, argv + argc);
  if (args.size() >= 2 && args[1] == "serve") return hubwardend::run_serve(args, std::cerr);
  return hubwardend::run_cli(args, std::cin, std::cout, std::cerr);
}
