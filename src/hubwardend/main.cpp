// Entry point of the command-line host; everything else lives in cli.cpp.
#include <iostream>
#include <string>
#include <vector>

#include "hubwardend/cli.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  std::vector<std::string> args(argv, argv + argc);
  return hubwardend::run_cli(args, std::cin, std::cout, std::cerr);
}
