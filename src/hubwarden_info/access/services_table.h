// The services table: service module name to console client identifier,
// and the services-ready flag set by the idle pass numbered 0.
#pragma once

#include <atomic>
#include <map>
#include <string>

namespace hubwarden {

using ServicesTable = std::map<std::string, std::string>;

// nullptr until create_services_table() has run.
const ServicesTable* gServerToClientMapping();
bool services_ready();
void reset_services_table_for_testing();

}  // namespace hubwarden
