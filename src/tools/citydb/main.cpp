// citydb_build SOURCE OUTPUT: turns GeoNames' city list into the table the
// host ships. Runs at build time; a malformed row stops the build, since a
// table silently missing cities would only show as a city that cannot be
// selected.
#include <cstdio>
#include <string>
#include <vector>

#include "platform/file_util.h"
#include "platform/linux/city_table_builder.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: citydb_build SOURCE OUTPUT\n");
    return 2;
  }
  const std::string source = argv[1];
  const std::string output = argv[2];
  // The list is about 6 MB; a limit far above it only guards against
  // being pointed at something that is not the list.
  std::optional<std::string> list = platform::read_file(source, size_t{1} << 30);
  if (!list) {
    std::fprintf(stderr, "citydb_build: cannot read %s\n", source.c_str());
    return 1;
  }
  std::string table;
  std::vector<std::string> errors;
  if (!platform::build_city_table(*list, source, &table, &errors)) {
    for (const std::string& e : errors) std::fprintf(stderr, "citydb_build: %s\n", e.c_str());
    return 1;
  }
  if (!platform::write_file_atomically(output, table)) {
    std::fprintf(stderr, "citydb_build: cannot write %s\n", output.c_str());
    return 1;
  }
  return 0;
}
