// Argument parsing and the three commands of the command-line host.
#include "hubwardend/cli.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <sstream>

#include "hubwardend/context_store.h"
#include "hubwardend/platform_setup.h"
#include "hubwardend/requester.h"
#include "platform/linux/system_bus.h"
#include "plist/codec.h"

namespace hubwardend {
namespace {

// Larger inputs are refused rather than read: no request or script of any
// use comes near this.
constexpr size_t kMaxInputBytes = 64u << 20;

constexpr const char* kUsage =
    "usage: hubwardend request [--root DIR] [--context FILE] [--user NAME] [FILE]\n"
    "       hubwardend idle    [--root DIR] [--context FILE] [--user NAME] PASS\n"
    "       hubwardend script  [--root DIR] [--context FILE] [--user NAME] FILE\n"
    "       hubwardend serve   [--root DIR] [--config FILE]\n";

struct Options {
  std::string command;
  std::string root = "/";
  std::optional<std::string> context_file;
  std::optional<std::string> user;
  std::vector<std::string> operands;
};

// Parses args into *options; on failure returns the reason.
std::optional<std::string> parse_arguments(const std::vector<std::string>& args, Options* options) {
  if (args.size() < 2) return "no command given";
  options->command = args[1];
  if (options->command != "request" && options->command != "idle" && options->command != "script")
    return "unknown command \"" + options->command + "\"";
  bool options_done = false;
  for (size_t i = 2; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (options_done || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      options->operands.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_done = true;
      continue;
    }
    std::string name = arg, value;
    bool has_value = false;
    if (size_t eq = arg.find('='); eq != std::string::npos) {
      name = arg.substr(0, eq);
      value = arg.substr(eq + 1);
      has_value = true;
    }
    if (name != "--root" && name != "--context" && name != "--user") return "unknown option " + name;
    if (!has_value) {
      if (i + 1 >= args.size()) return "option " + name + " needs a value";
      value = args[++i];
    }
    if (value.empty()) return "option " + name + " needs a non-empty value";
    if (name == "--root")
      options->root = value;
    else if (name == "--context")
      options->context_file = value;
    else
      options->user = value;
  }
  size_t max_operands = 1, min_operands = options->command == "request" ? 0 : 1;
  if (options->operands.size() < min_operands)
    return options->command + " needs " + (options->command == "idle" ? "a pass" : "a script file");
  if (options->operands.size() > max_operands) return "too many arguments";
  return std::nullopt;
}

// Reads all of in; nullopt with *error set when it fails or is too large.
std::optional<std::string> read_stream(std::istream& in, std::string* error) {
  std::string text;
  char buffer[65536];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) {
    text.append(buffer, static_cast<size_t>(in.gcount()));
    if (text.size() > kMaxInputBytes) {
      *error = "input is larger than " + std::to_string(kMaxInputBytes) + " bytes";
      return std::nullopt;
    }
    if (!in) break;
  }
  if (in.bad()) {
    *error = "input cannot be read";
    return std::nullopt;
  }
  return text;
}

std::optional<std::string> read_input(const std::string& file, std::istream& in, std::string* error) {
  if (file == "-") return read_stream(in, error);
  struct stat st;
  if (stat(file.c_str(), &st) != 0) {
    *error = file + ": " + strerror(errno);
    return std::nullopt;
  }
  if (S_ISDIR(st.st_mode)) {
    *error = file + ": is a directory";
    return std::nullopt;
  }
  std::ifstream stream(file, std::ios::binary);
  if (!stream) {
    *error = file + ": cannot be opened";
    return std::nullopt;
  }
  std::optional<std::string> text = read_stream(stream, error);
  if (!text) *error = file + ": " + *error;
  return text;
}

// The parsed input, or nullopt with *error set.
std::optional<plist::Value> parse_input(const std::string& file, std::istream& in, std::string* error) {
  std::optional<std::string> text = read_input(file, in, error);
  if (!text) return std::nullopt;
  plist::Parsed parsed = plist::parse_any(*text);
  if (!parsed.ok()) {
    *error = (file == "-" ? std::string("standard input") : file) + ": not a property list: " + parsed.error;
    return std::nullopt;
  }
  return std::move(parsed.value);
}

// One script step turned into a result; false when the step is malformed.
bool run_step(const plist::Value& step, HostModuleManager& modules, const std::string& default_user,
              plist::Dict* result) {
  const plist::Dict* dict = step.as_dict();
  if (!dict) return false;
  const plist::Value* idle = dict->find("idle");
  const plist::Value* request = dict->find("request");
  const plist::Value* user = dict->find("user");
  if (idle && !request && !user && dict->size() == 1) {
    std::string pass;
    if (const std::string* text = idle->as_string())
      pass = *text;
    else if (idle->as_integer())
      pass = std::to_string(*idle->as_integer());
    else if (idle->as_unsigned())
      pass = std::to_string(*idle->as_unsigned());
    else
      return false;
    result->set("result", modules.process_idle(pass, default_user));
    return true;
  }
  if (request && !idle && request->as_dict() && (!user || user->as_string()) && dict->size() == (user ? 2u : 1u)) {
    std::optional<plist::Dict> reply =
        modules.process_request(*request->as_dict(), user ? *user->as_string() : default_user);
    if (reply) result->set("reply", std::move(*reply));
    return true;
  }
  return false;
}

int fail(std::ostream& err, const std::string& message) {
  err << "hubwardend: " << message << "\n";
  return kExitUnusable;
}

}  // namespace

int run_cli(const std::vector<std::string>& args, std::istream& in, std::ostream& out, std::ostream& err) {
  if (args.size() == 2 && (args[1] == "--help" || args[1] == "-h" || args[1] == "help")) {
    out << kUsage;
    return kExitOk;
  }
  Options options;
  if (std::optional<std::string> problem = parse_arguments(args, &options)) {
    err << "hubwardend: " << *problem << "\n" << kUsage;
    return kExitUnusable;
  }

  // Everything that can make the input unusable is checked before anything
  // runs or any file is touched.
  std::string error;
  std::optional<plist::Value> input;
  if (options.command == "request") {
    input = parse_input(options.operands.empty() ? "-" : options.operands.front(), in, &error);
    if (!input) return fail(err, error);
    if (!input->as_dict()) return fail(err, "the request is not a dictionary");
  } else if (options.command == "script") {
    input = parse_input(options.operands.front(), in, &error);
    if (!input) return fail(err, error);
    if (!input->as_array()) return fail(err, "the script is not an array of steps");
  }
  struct stat st;
  if (stat(options.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
    return fail(err, "root " + options.root + " is not a directory");
  platform::export_system_bus_address(options.root);

  LoadedContext loaded;
  if (options.context_file) {
    loaded = load_context(*options.context_file);
    if (loaded.status == LoadedContext::Status::kUnreadable)
      return fail(err, "context " + *options.context_file + " cannot be used: " + loaded.message);
    if (loaded.status == LoadedContext::Status::kCorrupt)
      err << "hubwardend: context " << *options.context_file << " is corrupt (" << loaded.message
          << "); moved it aside to " << loaded.moved_to << " and started with an empty context\n";
  }
  plist::Dict context = loaded.context;

  int status = kExitOk;
  bool marked_dirty = false;
  std::string output;
  {
    HostOptions host_options;
    host_options.root = options.root;
    host_options.default_user = options.user.value_or("");
    host_options.context = &context;
    std::unique_ptr<Host> started = Host::start(host_options, &error);
    if (!started) return fail(err, error);
    Host& host = *started;
    HostModuleManager& modules = host.modules();
    const std::string& user = host.default_user();
    if (options.command == "request") {
      std::optional<plist::Dict> reply = modules.process_request(*input->as_dict(), user);
      if (reply) output = plist::write_xml(plist::Value(std::move(*reply)));
    } else if (options.command == "idle") {
      output = std::to_string(modules.process_idle(options.operands.front(), user)) + "\n";
    } else {
      plist::Array results;
      const plist::Array& steps = *input->as_array();
      results.reserve(steps.size());
      for (size_t i = 0; i < steps.size(); ++i) {
        plist::Dict result;
        if (!run_step(steps[i], modules, user, &result)) {
          err << "hubwardend: step " << i
              << ": not {\"idle\": pass} or {\"request\": dictionary, \"user\": name}; skipped\n";
          status = kExitPartial;
        }
        // A step sees everything the previous one started in the background.
        host.queue().wait_until_idle();
        results.push_back(std::move(result));
      }
      output = plist::write_xml(plist::Value(std::move(results)));
    }
    host.queue().wait_until_idle();
    marked_dirty = modules.context_marked_dirty();
  }  // the host waits for background work and uninstalls everything here

  out << output;
  out.flush();

  if (options.context_file) {
    bool changed = marked_dirty || loaded.status != LoadedContext::Status::kLoaded || !(context == loaded.context);
    if (changed && !store_context(*options.context_file, context)) {
      err << "hubwardend: cannot store the context in " << *options.context_file << "\n";
      if (status == kExitOk) status = kExitPartial;
    }
  }
  return status;
}

}  // namespace hubwardend
