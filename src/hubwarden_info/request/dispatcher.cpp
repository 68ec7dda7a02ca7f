// The request dispatcher: works out the caller's tier, matches "command"
// against the command table in its fixed order, and turns the operation's
// result into the reply.
#include <functional>
#include <string_view>

#include "platform/host_services.h"
#include "platform/registry.h"
#include "request/globals.h"
#include "request/module.h"
#include "request/operations.h"

namespace hubwarden {

namespace {

// Arguments every row may use.
struct Call {
  const Dict& request;
  Dict* context;
  bool tier_flag;
};

// A row's reply: a standard row runs an operation with a reply slot; the
// others build their reply themselves.
using StandardOperation = std::function<ErrorName(const Call&, ReplySlot&)>;
using DirectOperation = std::function<std::optional<Dict>(const Call&)>;

struct Row {
  std::string_view command;
  // Whether the request carries the row's required keys with their types.
  bool (*accepts)(const Dict& request);
  StandardOperation standard;  // set for standard rows
  DirectOperation direct;      // set for the rows that build their own reply
};

bool no_requirements(const Dict&) { return true; }

bool tail_file_keys(const Dict& r) {
  return r.find_string("identifier") && r.find_number("offset") && r.find_number("amount");
}

bool history_keys(const Dict& r) { return r.find_number("timeScale") != nullptr; }

bool ignore_update_keys(const Dict& r) { return r.find_array("identifiersToIgnore") != nullptr; }

std::optional<Dict> error_reply(ErrorName error) {
  Dict reply;
  reply.set("error", std::string(error));
  return reply;
}

std::optional<Dict> tail_file(const Call& call) {
  std::optional<Dict> log_paths;
  get_log_paths(log_paths);
  const std::string& identifier = *call.request.find_string("identifier");
  std::optional<std::string> path;
  Value offset = *call.request.find("offset");
  Value amount = *call.request.find("amount");
  std::optional<std::string> contents;
  ErrorName error = platform::get<platform::TailService>().tail(
      identifier, log_paths.value_or(Dict()), &path, &offset, &amount, &contents, call.context, call.request);
  if (error) return error_reply(error);
  plist::KeyValueList reply;
  reply.add("identifier", Value(identifier));
  reply.add("path", path ? std::optional<Value>(*path) : std::nullopt);
  reply.add("offset", offset.is_null() ? std::nullopt : std::optional<Value>(offset));
  reply.add("amount", amount.is_null() ? std::nullopt : std::optional<Value>(amount));
  reply.add("tailContents", contents ? std::optional<Value>(*contents) : std::nullopt);
  return reply.take();
}

std::optional<Value> optional_copy(const Value* v) { return v ? std::optional<Value>(*v) : std::nullopt; }

std::optional<Dict> sacls_reply(const char* command, const Call& call, bool with_sacls, bool use_search) {
  const Value* user = call.request.find("user");
  plist::KeyValueList reply;
  reply.add("command", Value(command));
  reply.add("user", optional_copy(user));
  if (with_sacls) {
    std::optional<Array> sacls = sacls_for_user(user, call.context, use_search);
    reply.add("sacls", sacls ? std::optional<Value>(std::move(*sacls)) : std::nullopt);
  }
  return reply.take();
}

std::optional<Dict> sacls_with_auth_data(const Call& call) {
  const Value* auth_data = call.request.find("authData");
  std::optional<std::string> given;
  if (auth_data) {
    if (const plist::Data* bytes = auth_data->as_data())
      given = std::string(bytes->begin(), bytes->end());
    else if (const std::string* s = auth_data->as_string())
      given = *s;
  }
  std::optional<std::string> expected = auth_string();
  bool matches = given && expected && *given == *expected;
  return sacls_reply("getSACLsForUserWithAuthData", call, matches, false);
}

const std::vector<Row>& command_table() {
  static const std::vector<Row> rows = {
      {"getState", no_requirements,
       [](const Call& c, ReplySlot& r) { return get_server_info(r, c.request.find("variant"), c.tier_flag, c.context); },
       nullptr},
      {"getHardwareInfo", no_requirements,
       [](const Call& c, ReplySlot& r) { return get_hardware_info(r, c.request.find("variant"), c.tier_flag, c.context); },
       nullptr},
      {"getSystemLogPaths", no_requirements, [](const Call&, ReplySlot& r) { return get_log_paths(r); }, nullptr},
      {"tailFile", tail_file_keys, nullptr, tail_file},
      {"getHistory", history_keys,
       [](const Call& c, ReplySlot& r) {
         return get_history_data(c.request.find("variant"), *c.request.find("timeScale"), r, c.context);
       },
       nullptr},
      {"getSWUpdateStatus", no_requirements, [](const Call& c, ReplySlot& r) { return get_swupdate_status(r, c.context); },
       nullptr},
      {"startSWUpdateScan", no_requirements,
       [](const Call& c, ReplySlot& r) { return start_swupdate_scan(c.request.find("language"), r, c.context); }, nullptr},
      {"startSWUpdateInstall", no_requirements,
       [](const Call& c, ReplySlot& r) { return start_swupdate_install(c.request, r, c.context); }, nullptr},
      {"ignoreUpdateIdentifiers", ignore_update_keys,
       [](const Call& c, ReplySlot& r) { return ignore_swupdate_identifiers(c.request, r, c.context); }, nullptr},
      {"resetIgnoredUpdateIdentifiers", no_requirements,
       [](const Call& c, ReplySlot& r) { return reset_ignored_swupdate_identifiers(r, c.context); }, nullptr},
      {"reboot", no_requirements, [](const Call& c, ReplySlot& r) { return reboot_post_swupdate(c.request, r, c.context); },
       nullptr},
      {"killProcesses", no_requirements, [](const Call& c, ReplySlot& r) { return kill_processes(c.request, r, c.context); },
       nullptr},
      {"listProcesses", no_requirements, [](const Call& c, ReplySlot& r) { return list_processes(c.request, r, c.context); },
       nullptr},
      {"readSettings", no_requirements, [](const Call& c, ReplySlot& r) { return read_settings(&c.request, r, c.context); },
       nullptr},
      {"writeSettings", no_requirements, [](const Call& c, ReplySlot& r) { return write_settings(c.request, r, c.context); },
       nullptr},
      // Recognised but served by no operation: the summary reaches consoles
      // inside the "getState" reply.
      {"getTieredAdminSummary", no_requirements, [](const Call&, ReplySlot&) { return kCommandNotServedErr; }, nullptr},
      {"readServiceConfig", no_requirements,
       [](const Call& c, ReplySlot& r) { return read_service_config(&c.request, r, c.context); }, nullptr},
      {"writeServiceConfig", no_requirements,
       [](const Call& c, ReplySlot& r) { return write_service_config(&c.request, r, c.context); }, nullptr},
      {"getServicesInfo", no_requirements, nullptr,
       [](const Call& c) {
         plist::KeyValueList reply;
         reply.add("command", Value("getServicesInfo"));
         std::optional<Dict> info = build_services_dict(false, false, c.context);
         reply.add("servicesInfo", info ? std::optional<Value>(std::move(*info)) : std::nullopt);
         return std::optional<Dict>(reply.take());
       }},
      {"getSACLsForUser", no_requirements, nullptr,
       [](const Call& c) { return sacls_reply("getSACLsForUser", c, true, true); }},
      {"getSACLsForUserWithAuthData", no_requirements, nullptr, sacls_with_auth_data},
      {"getContext", no_requirements, nullptr,
       [](const Call& c) {
         Dict reply;
         reply.set("context", c.context ? Value(*c.context) : Value(Dict()));
         return std::optional<Dict>(std::move(reply));
       }},
  };
  return rows;
}

bool caller_is_administrator(const std::string& user) {
  if (platform::does_user_belong_to_group(user, "admin")) return true;
  if (platform::does_user_belong_to_group(user, "com.marlo.admin_info")) return true;
  // Asked and deliberately ignored: monitors get no more than anybody else
  // here; the operations decide what they may see.
  (void)platform::does_user_belong_to_group(user, "com.marlo.monitor_info");
  return false;
}

}  // namespace

std::optional<Dict> doProcessInput(const Dict& request, Dict* context, int lock_file_fd) {
  (void)lock_file_fd;
  std::string user = platform::do_get_user(context, 0, 0);
  bool tier_flag = caller_is_administrator(user);

  const std::string* command = request.find_string("command");
  if (!command) return std::nullopt;

  Call call{request, context, tier_flag};
  for (const Row& row : command_table()) {
    if (*command != row.command || !row.accepts(request)) continue;
    if (row.direct) return row.direct(call);
    ReplySlot reply;
    ErrorName error = row.standard(call, reply);
    if (error) return error_reply(error);
    return reply;
  }
  return std::nullopt;
}

}  // namespace hubwarden
