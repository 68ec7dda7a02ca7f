#include "hubwarden_client/client.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <sstream>

#include "hubwarden_client/arguments.h"
#include "hubwarden_client/log_tail.h"
#include "hubwarden_client/output.h"
#include "hubwarden_client/session.h"
#include "hubwarden_client/verbs.h"

namespace hubwarden_client {

namespace {

constexpr const char kVerbs[] = R"(Commands:
  status                          the server at a glance
  settings                        every server-wide setting
  settings set KEY=VALUE ...      change settings
  services                        the services running now
  ps [--sort KEY] [-n N] [--ascending]
                                  processes, busiest first
  kill PID ...                    end processes
  logs [system|kernel|secure] [-n LINES] [-f]
                                  the end of a log, and what is appended
  history [cpu|network|disk] [--scale 1h]
                                  load over the last hour (or 15m, 1d, 1w)
  hardware                        processor, network and volume load
  request FILE                    send a request file (XML or JSON; - for stdin)
  COMMAND [KEY=VALUE | KEY:=JSON ...]
                                  any request command of the module
Values: true/false are booleans, whole numbers are integers, the rest are
strings; KEY:=JSON gives any value (arrays, dictionaries, reals, "007").
Exit status: 0 done, 1 the daemon reported an error, 2 bad usage,
3 the request did not get through.)";

// The settings shared by the global parser and each command's parser.
struct Options {
  std::string socket;
  std::string url;
  std::string user;
  std::string ca_file;
  std::string module = "hubwarden_info";
  bool insecure = false;
  bool json = false;
  bool xml = false;
  long timeout = 60;
};

void add_output_flags(CLI::App& app, Options& options) {
  CLI::Option* json = app.add_flag("--json", options.json, "print the raw reply as JSON");
  CLI::Option* xml = app.add_flag("--xml", options.xml, "print the raw reply as an XML property list");
  json->excludes(xml);
}

// CLI11 wants the arguments last first.
bool parse(CLI::App& app, std::vector<std::string> arguments, ClientIo& io, int* status) {
  std::reverse(arguments.begin(), arguments.end());
  try {
    app.parse(arguments);
    return true;
  } catch (const CLI::CallForHelp&) {
    *io.out << app.help();
    *status = kExitOk;
  } catch (const CLI::ParseError& e) {
    std::string name = app.get_name();
    *io.err << "hubwarden: " << (name == "hubwarden" ? "" : name + ": ") << e.what() << "\n";
    *status = kExitUsage;
  }
  return false;
}

int usage_error(ClientIo& io, const std::string& message) {
  *io.err << "hubwarden: " << message << "\n";
  return kExitUsage;
}

// Everything a command needs once the command line is understood.
class Runner {
 public:
  Runner(const Options& options, ClientIo& io) : options_(options), io_(io) {}

  OutputMode mode() const {
    return options_.json ? OutputMode::kJson : options_.xml ? OutputMode::kXml : OutputMode::kTable;
  }

  // Works out where to send, asking for the password when needed. Returns
  // kExitOk or the status to exit with.
  int connect() {
    Endpoint endpoint;
    endpoint.socket_path = options_.socket;
    std::string url = options_.url;
    if (endpoint.socket_path.empty() && url.empty()) {
      if (auto env_url = io_.env("HUBWARDEN_URL"); env_url && !env_url->empty())
        url = *env_url;
      else if (auto env_socket = io_.env("HUBWARDEN_SOCKET"); env_socket && !env_socket->empty())
        endpoint.socket_path = *env_socket;
      else
        endpoint.socket_path = kDefaultSocketPath;
    }
    std::string user;
    if (!url.empty()) {
      std::string error;
      if (!normalize_url(url, &endpoint.url, &error)) return usage_error(io_, error);
      endpoint.user = options_.user.empty() ? io_.local_user() : options_.user;
      endpoint.insecure = options_.insecure;
      endpoint.ca_file = options_.ca_file;
      if (auto password = io_.env("HUBWARDEN_PASSWORD")) {
        endpoint.password = *password;
      } else if (auto typed = io_.read_password("Password for " + endpoint.user + " at " + endpoint.url + ": ")) {
        endpoint.password = *typed;
      } else {
        return usage_error(io_, "no password: set HUBWARDEN_PASSWORD or run from a terminal");
      }
      user = endpoint.user;
    } else {
      if (!options_.user.empty()) return usage_error(io_, "--user applies to --url only");
      user = io_.local_user();
    }
    endpoint.timeout_seconds = options_.timeout;
    transport_ = io_.connect(endpoint);
    session_.emplace(*transport_, describe(endpoint), options_.module, user);
    return kExitOk;
  }

  int send(const plist::Dict& request, const Renderer& render) {
    if (int status = connect(); status != kExitOk) return status;
    const std::string* command = request.find_string("command");
    return report(session_->send(request), command ? *command : "request", mode(), render, io_);
  }

  int logs(const LogOptions& log_options) {
    if (int status = connect(); status != kExitOk) return status;
    return run_logs(*session_, log_options, mode(), io_);
  }

 private:
  const Options& options_;
  ClientIo& io_;
  std::unique_ptr<Transport> transport_;
  std::optional<Session> session_;
};

int run_command(const std::string& command, const std::vector<std::string>& rest, Options& options, ClientIo& io) {
  CLI::App app("", command);
  add_output_flags(app, options);
  Runner runner(options, io);
  int status = kExitOk;
  std::vector<std::string> words;

  if (command == "status" || command == "services" || command == "hardware") {
    if (!parse(app, rest, io, &status)) return status;
    if (command == "status") return runner.send(status_request(), render_status);
    if (command == "services") return runner.send(services_request(), render_services);
    return runner.send(hardware_request(), render_hardware);
  }

  if (command == "settings") {
    app.add_option("words", words, "set KEY=VALUE ...");
    if (!parse(app, rest, io, &status)) return status;
    if (words.empty()) return runner.send(read_settings_request(), render_settings);
    if (words.front() != "set" || words.size() < 2)
      return usage_error(io, "settings: use \"settings set KEY=VALUE ...\"");
    plist::Dict configuration;
    std::string error = add_key_values({words.begin() + 1, words.end()}, &configuration);
    if (!error.empty()) return usage_error(io, "settings set: " + error);
    return runner.send(write_settings_request(std::move(configuration)), render_write_settings);
  }

  if (command == "ps") {
    std::string sort = "CPUUsage";
    int64_t limit = 20;
    bool ascending = false;
    app.add_option("--sort", sort, "sort key, such as CPUUsage, ResidentSize, PID, Command")->capture_default_str();
    app.add_option("-n,--limit", limit, "how many processes (0: all)")->check(CLI::NonNegativeNumber);
    app.add_flag("--ascending", ascending, "smallest first");
    if (!parse(app, rest, io, &status)) return status;
    return runner.send(process_list_request(sort, limit, ascending), render_processes);
  }

  if (command == "kill") {
    std::vector<int64_t> pids;
    app.add_option("pids", pids, "process numbers")->required();
    if (!parse(app, rest, io, &status)) return status;
    return runner.send(kill_request(pids), render_kill);
  }

  if (command == "logs") {
    LogOptions log_options;
    app.add_option("log", log_options.name, "system, kernel or secure");
    app.add_option("-n,--lines", log_options.lines, "how many lines")->check(CLI::NonNegativeNumber);
    app.add_flag("-f,--follow", log_options.follow, "keep printing what is appended");
    if (!parse(app, rest, io, &status)) return status;
    return runner.logs(log_options);
  }

  if (command == "history") {
    std::string kind_name = "cpu";
    std::string scale = "1h";
    app.add_option("series", kind_name, "cpu, network or disk");
    app.add_option("--scale", scale, "how far back: 90s, 15m, 1h, 1d, 1w");
    if (!parse(app, rest, io, &status)) return status;
    std::optional<HistoryKind> kind = parse_history_kind(kind_name);
    if (!kind) return usage_error(io, "history: expected cpu, network or disk, got \"" + kind_name + "\"");
    std::optional<int64_t> seconds = parse_time_span(scale);
    if (!seconds) return usage_error(io, "history: bad --scale \"" + scale + "\"");
    return runner.send(history_request(*kind, *seconds),
                       [kind](const plist::Dict& reply) { return render_history(reply, *kind); });
  }

  if (command == "request") {
    std::string file;
    app.add_option("file", file, "request file, - for standard input")->required();
    if (!parse(app, rest, io, &status)) return status;
    std::optional<std::string> text;
    if (file == "-") {
      text = io.read_stdin();
    } else {
      std::ifstream in(file, std::ios::binary);
      std::ostringstream buffer;
      if (in && (buffer << in.rdbuf())) text = buffer.str();
    }
    if (!text) return usage_error(io, "request: cannot read " + file);
    plist::Dict request;
    std::string error = parse_request_text(*text, &request);
    if (!error.empty()) return usage_error(io, "request: " + file + ": " + error);
    return runner.send(request, render_any);
  }

  // Any other word is a request command of the module.
  app.add_option("arguments", words, "KEY=VALUE or KEY:=JSON");
  if (!parse(app, rest, io, &status)) return status;
  if (command.find('=') != std::string::npos) return usage_error(io, "a command must come before " + command);
  plist::Dict request{{"command", command}};
  std::string error = add_key_values(words, &request);
  if (!error.empty()) return usage_error(io, command + ": " + error);
  request.set("command", command);
  return runner.send(request, render_any);
}

}  // namespace

int run_client(const std::vector<std::string>& arguments, ClientIo& io) {
  Options options;
  CLI::App app("Administers a hubwarden server through its daemon.", "hubwarden");
  app.prefix_command();
  app.footer(kVerbs);
  CLI::Option* socket = app.add_option("--socket", options.socket, "the daemon's local socket");
  CLI::Option* url = app.add_option("--url", options.url, "the daemon's address, https://HOST[:311]");
  socket->excludes(url);
  app.add_option("--user", options.user, "user name for --url (default: your login name)");
  app.add_flag("--insecure", options.insecure, "accept any certificate from the daemon");
  app.add_option("--cacert", options.ca_file, "trust the daemon certificate in FILE");
  app.add_option("--module", options.module, "the module to ask")->capture_default_str();
  app.add_option("--timeout", options.timeout, "seconds to wait for a reply")->check(CLI::Range(1, 3600));
  add_output_flags(app, options);

  int status = kExitOk;
  try {
    if (!parse(app, arguments, io, &status)) return status;
    std::vector<std::string> rest = app.remaining();
    if (rest.empty()) return usage_error(io, "no command given (hubwarden --help lists them)");
    if (rest.front().starts_with('-')) return usage_error(io, "unknown option " + rest.front());
    if (!is_valid_module_name(options.module)) return usage_error(io, "bad module name \"" + options.module + "\"");
    std::string command = rest.front();
    rest.erase(rest.begin());
    if (command == "help") {
      *io.out << app.help();
      return kExitOk;
    }
    return run_command(command, rest, options, io);
  } catch (const std::exception& e) {
    // Nothing below should throw; if something does, say so and fail
    // rather than abort.
    *io.err << "hubwarden: " << e.what() << "\n";
    return kExitTransport;
  }
}

}  // namespace hubwarden_client
