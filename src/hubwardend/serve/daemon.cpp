// Start-up, wiring and shutdown of the long-running host.
#include "hubwardend/serve/daemon.h"

#include <grp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <thread>

#include "hubwardend/context_store.h"
#include "hubwardend/platform_setup.h"
#include "hubwardend/requester.h"
#include "hubwardend/serve/command_router.h"
#include "hubwardend/serve/daemon_config.h"
#include "hubwardend/serve/event_loop.h"
#include "hubwardend/serve/http_server.h"
#include "hubwardend/serve/idle_schedule.h"
#include "hubwardend/serve/static_files.h"
#include "hubwardend/serve/tls_identity.h"
#include "hubwardend/serve/web_sessions.h"
#include "hubwardend/serve/worker_pool.h"
#include "platform/linux/host_config.h"
#include "platform/linux/job_map.h"
#include "platform/linux/system_bus.h"
#include "platform/log.h"
#include "platform/paths.h"

namespace hubwardend {
namespace {

using serve::DaemonConfig;
using SteadyClock = std::chrono::steady_clock;

constexpr const char kUsage[] = "usage: hubwardend serve [--root DIR] [--config FILE]\n";
// The whole stop, from the signal to the exit, stays within what a service
// manager waits by default before it kills; the rest of the budget is for
// closing connections and storing the context.
constexpr std::chrono::milliseconds kStopBudget{4000};
constexpr std::chrono::seconds kContextStoreDelay{1};

struct ServeArguments {
  std::string root = "/";
  std::string config_file;  // "" = the usual file under the root
};

std::optional<std::string> parse_serve_arguments(const std::vector<std::string>& args, ServeArguments* out) {
  for (size_t i = 2; i < args.size(); ++i) {
    std::string name = args[i], value;
    bool has_value = false;
    if (size_t eq = name.find('='); eq != std::string::npos && name.compare(0, 2, "--") == 0) {
      value = name.substr(eq + 1);
      name = name.substr(0, eq);
      has_value = true;
    }
    if (name != "--root" && name != "--config") return "unknown argument " + name;
    if (!has_value) {
      if (i + 1 >= args.size()) return "option " + name + " needs a value";
      value = args[++i];
    }
    if (value.empty()) return "option " + name + " needs a non-empty value";
    (name == "--root" ? out->root : out->config_file) = value;
  }
  return std::nullopt;
}

std::string under_root(const std::string& root, const std::string& path) {
  if (root == "/" || root.empty()) return path;
  std::string joined = root;
  while (joined.size() > 1 && joined.back() == '/') joined.pop_back();
  return joined + path;
}

std::optional<gid_t> group_id(const char* name) {
  std::vector<char> buffer(16384);
  struct group entry, *found = nullptr;
  if (getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found) == 0 && found) return found->gr_gid;
  return std::nullopt;
}

// Processes are the numbered entries of /proc; threads come from the
// kernel's count of scheduling entities in /proc/loadavg.
void count_processes_and_threads(std::optional<uint64_t>* processes, std::optional<uint64_t>* threads) {
  std::error_code ec;
  uint64_t count = 0;
  for (std::filesystem::directory_iterator it("/proc", ec), end; !ec && it != end; it.increment(ec)) {
    const std::string name = it->path().filename().string();
    if (!name.empty() && name.find_first_not_of("0123456789") == std::string::npos) ++count;
  }
  if (!ec) *processes = count;
  std::ifstream loadavg("/proc/loadavg");
  std::string one, five, fifteen, entities;
  if (loadavg >> one >> five >> fifteen >> entities) {
    size_t slash = entities.find('/');
    if (slash != std::string::npos) {
      char* end = nullptr;
      unsigned long long total = std::strtoull(entities.c_str() + slash + 1, &end, 10);
      if (end && *end == '\0') *threads = total;
    }
  }
}

class Daemon {
 public:
  Daemon(ServeArguments arguments, std::string config_path, DaemonConfig config)
      : arguments_(std::move(arguments)), config_path_(std::move(config_path)), config_(std::move(config)) {}

  // Returns the exit status.
  int run(std::ostream& err);

 private:
  bool start(std::ostream& err);
  void begin_stop();
  void stop_everything();
  void reload();
  void run_idle_pass(const std::string& pass);
  void context_changed();
  void store_context_now();
  serve::Metrics::Snapshot metrics_snapshot();

  const ServeArguments arguments_;
  const std::string config_path_;
  DaemonConfig config_;

  plist::Dict context_;
  std::string context_path_;
  std::unique_ptr<serve::EventLoop> loop_;
  std::unique_ptr<Host> host_;
  std::unique_ptr<serve::WorkerPool> requests_, slow_requests_, logins_, idle_worker_;
  std::unique_ptr<serve::PamPasswordChecker> passwords_;
  serve::LoginThrottle throttle_;
  serve::Metrics metrics_;
  std::unique_ptr<serve::StaticFiles> files_;
  serve::WebSessions sessions_;
  std::unique_ptr<serve::CommandRouter> router_;
  std::unique_ptr<serve::HttpServer> server_;
  std::unique_ptr<serve::IdleSchedule> idle_;

  std::atomic<bool> stopping_{false};
  std::atomic<bool> store_scheduled_{false};
  std::mutex store_mu_;  // one store at a time, in order
  std::thread stopper_;
};

bool Daemon::start(std::ostream& err) {
  std::string error;
  loop_ = serve::EventLoop::create(&error);
  if (!loop_) {
    err << "hubwardend: no event loop: " << error << "\n";
    return false;
  }

  HostOptions options;
  options.root = arguments_.root;
  options.default_user = running_user_name();
  options.context = &context_;
  options.host_config_file = arguments_.config_file;
  options.long_running = true;
  options.run_loop = loop_.get();
  host_ = Host::start(options, &error);
  if (!host_) {
    err << "hubwardend: cannot start: " << error << "\n";
    return false;
  }

  // Nothing runs module code yet, so the context can be filled in place.
  context_path_ = platform::resolve(kDaemonContextPath);
  LoadedContext loaded = load_context(context_path_);
  if (loaded.status == LoadedContext::Status::kUnreadable) {
    err << "hubwardend: context " << context_path_ << " cannot be used: " << loaded.message << "\n";
    return false;
  }
  if (loaded.status == LoadedContext::Status::kCorrupt)
    platform::log_error("hubwardend: context " + context_path_ + " was damaged (" + loaded.message +
                        "); moved aside to " + loaded.moved_to);
  context_ = std::move(loaded.context);

  serve::HttpServerOptions http;
  for (const serve::ListenAddress& address : config_.listen) http.listen.push_back(address.text());
  http.max_body_bytes = config_.max_body_bytes;
  if (!config_.listen.empty()) {
    http.certificate_file = platform::resolve(config_.tls_certificate);
    http.key_file = platform::resolve(config_.tls_key);
    if (!serve::ensure_tls_identity(http.certificate_file, http.key_file, &error)) {
      err << "hubwardend: no TLS certificate: " << error << "\n";
      return false;
    }
  }
  if (!config_.socket_path.empty()) {
    http.socket_path = platform::resolve(config_.socket_path);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(http.socket_path).parent_path(), ec);
    http.socket_group = group_id("admin");
  }

  requests_ = std::make_unique<serve::WorkerPool>("request", 8, 512);
  slow_requests_ = std::make_unique<serve::WorkerPool>("slow", 4, 64);
  logins_ = std::make_unique<serve::WorkerPool>("login", 2, 128);
  idle_worker_ = std::make_unique<serve::WorkerPool>("idle", 1, 2);
  passwords_ = std::make_unique<serve::PamPasswordChecker>(config_.pam_service);

  // The console is shipped with the program, so it is found on the machine
  // whatever the root; without it the protocol still works.
  const std::string web_folder = serve::find_web_folder();
  files_ = std::make_unique<serve::StaticFiles>(web_folder);
  if (files_->usable())
    platform::log_notice("hubwardend: web console from " + web_folder);
  else
    platform::log_error(std::string("hubwardend: no web console folder (") + serve::kInstalledWebFolder +
                        " or beside the program); the console is not served");

  serve::RouterParts parts;
  parts.files = files_.get();
  parts.sessions = &sessions_;
  parts.cities = platform::find<platform::CityDatabase>();
  parts.modules = &host_->modules();
  parts.passwords = passwords_.get();
  parts.throttle = &throttle_;
  parts.metrics = &metrics_;
  parts.loop = loop_.get();
  parts.requests = requests_.get();
  parts.slow_requests = slow_requests_.get();
  parts.logins = logins_.get();
  parts.snapshot = [this] { return metrics_snapshot(); };
  parts.after_call = [this] { context_changed(); };
  parts.metrics_need_authentication = config_.metrics_need_authentication;
  router_ = std::make_unique<serve::CommandRouter>(std::move(parts));

  server_ = serve::HttpServer::start(http, router_.get(), &error);
  if (!server_) {
    err << "hubwardend: cannot listen: " << error << "\n";
    return false;
  }

  loop_->add_signal_handler(SIGTERM, [this] { begin_stop(); });
  loop_->add_signal_handler(SIGINT, [this] { begin_stop(); });
  loop_->add_signal_handler(SIGHUP, [this] { reload(); });

  idle_ = std::make_unique<serve::IdleSchedule>(
      *loop_, config_.idle_period, [this](const std::string& pass) { run_idle_pass(pass); },
      [this](std::function<void()> work) {
        if (!idle_worker_->submit(std::move(work))) platform::log_error("hubwardend: idle pass could not be queued");
      });
  idle_->start();
  return true;
}

void Daemon::run_idle_pass(const std::string& pass) {
  SteadyClock::time_point started = SteadyClock::now();
  int code = host_->modules().process_idle(pass, host_->default_user());
  metrics_.observe_idle_pass(std::chrono::duration<double>(SteadyClock::now() - started).count());
  if (code != 0) platform::log_notice("hubwardend: idle pass " + pass + " gave " + std::to_string(code));
  context_changed();
}

void Daemon::context_changed() {
  // Stores are batched: one a second at most, however many calls mark the
  // context dirty. A stop stores whatever is left.
  bool expected = false;
  if (!store_scheduled_.compare_exchange_strong(expected, true)) return;
  if (loop_->add_timer(kContextStoreDelay, [this] {
        store_scheduled_ = false;
        store_context_now();
      }) == 0)
    store_scheduled_ = false;
}

void Daemon::store_context_now() {
  std::lock_guard<std::mutex> lock(store_mu_);
  std::optional<plist::Dict> dirty = host_->modules().take_dirty_context();
  if (!dirty) return;
  if (!store_context(context_path_, *dirty))
    platform::log_error("hubwardend: cannot store the context in " + context_path_);
}

serve::Metrics::Snapshot Daemon::metrics_snapshot() {
  serve::Metrics::Snapshot snapshot;
  if (platform::HistoryService* history = platform::find<platform::HistoryService>()) {
    // The last minute holds the latest sample whatever the idle period.
    std::optional<plist::Array> samples;
    plist::Dict unused_context;
    history->get(nullptr, plist::Value(int64_t{60}), &samples, &unused_context);
    if (samples && !samples->empty())
      if (const plist::Dict* latest = samples->back().as_dict()) snapshot.history_sample = *latest;
  }
  count_processes_and_threads(&snapshot.processes, &snapshot.threads);
  return snapshot;
}

void Daemon::begin_stop() {
  if (stopping_.exchange(true)) return;
  serve::EventLoop::notify_stopping();
  platform::log_notice("hubwardend: stopping");
  // The loop keeps running while requests finish: they may still need its
  // timers.
  stopper_ = std::thread([this] {
    stop_everything();
    loop_->exit(0);
  });
}

void Daemon::stop_everything() {
  const SteadyClock::time_point deadline = SteadyClock::now() + kStopBudget;
  server_->stop_accepting();
  if (!idle_->stop(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now())))
    platform::log_error("hubwardend: an idle pass was still running at stop");
  if (!server_->drain(deadline)) platform::log_error("hubwardend: requests were still running at stop");
  for (serve::WorkerPool* pool : {logins_.get(), requests_.get(), slow_requests_.get(), idle_worker_.get()})
    pool->close_and_wait(deadline);
  store_context_now();
}

void Daemon::reload() {
  serve::EventLoop::notify_reloading();
  platform::log_notice("hubwardend: reloading the host configuration");
  if (std::optional<std::string> problem = host_->reload_configuration())
    platform::log_error("hubwardend: reload: " + *problem);
  // Of the daemon's own keys, the idle period takes effect at once; the
  // entrances keep what they were started with.
  std::string error;
  std::vector<std::string> warnings;
  std::optional<plist::Dict> file = platform::read_host_config(config_path_, &error);
  std::optional<DaemonConfig> fresh =
      error.empty() ? serve::read_daemon_config(file.value_or(plist::Dict()), &error, &warnings) : std::nullopt;
  if (!fresh) {
    platform::log_error("hubwardend: reload: " + config_path_ + ": " + error +
                        "; the daemon's settings stay as they were");
  } else {
    idle_->set_period(fresh->idle_period);
    if (fresh->listen != config_.listen || fresh->socket_path != config_.socket_path ||
        fresh->tls_certificate != config_.tls_certificate || fresh->tls_key != config_.tls_key ||
        fresh->pam_service != config_.pam_service || fresh->max_body_bytes != config_.max_body_bytes ||
        fresh->metrics_need_authentication != config_.metrics_need_authentication)
      platform::log_notice("hubwardend: reload: changed entrance settings take effect at the next start");
    config_.idle_period = fresh->idle_period;
  }
  router_->forget_logins();
  serve::EventLoop::notify_ready();
}

int Daemon::run(std::ostream& err) {
  if (!start(err)) return 1;
  serve::EventLoop::notify_ready();
  platform::log_notice("hubwardend: serving");
  int status = loop_->run();
  if (stopper_.joinable()) stopper_.join();
  server_.reset();
  idle_.reset();
  store_context_now();
  return status;
}

}  // namespace

int run_serve(const std::vector<std::string>& args, std::ostream& err) {
  ServeArguments arguments;
  if (std::optional<std::string> problem = parse_serve_arguments(args, &arguments)) {
    err << "hubwardend: " << *problem << "\n" << kUsage;
    return 2;
  }
  struct stat st;
  if (stat(arguments.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    err << "hubwardend: root " << arguments.root << " is not a directory\n";
    return 2;
  }
  // Each connection costs a descriptor; the usual soft limit of 1024 is
  // below what the entrances accept, so take what the hard limit allows.
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = std::min<rlim_t>(files.rlim_max, 65536);
    setrlimit(RLIMIT_NOFILE, &files);
  }
  // Signals go to the loop alone: block them before any thread starts.
  serve::EventLoop::block_daemon_signals();
  // Before any thread reads the environment.
  platform::export_system_bus_address(arguments.root);

  std::string config_path =
      arguments.config_file.empty() ? under_root(arguments.root, platform::kHostConfigPath) : arguments.config_file;
  std::string error;
  std::optional<plist::Dict> host_config = platform::read_host_config(config_path, &error);
  if (!host_config && !error.empty()) {
    err << "hubwardend: " << config_path << ": " << error << "\n";
    return 2;
  }
  std::vector<std::string> warnings;
  std::optional<DaemonConfig> config =
      serve::read_daemon_config(host_config.value_or(plist::Dict()), &error, &warnings);
  if (!config) {
    err << "hubwardend: " << config_path << ": " << error << "\n";
    return 2;
  }
  for (const std::string& warning : warnings) err << "hubwardend: " << config_path << ": " << warning << "\n";

  Daemon daemon(std::move(arguments), config_path, std::move(*config));
  return daemon.run(err);
}

}  // namespace hubwardend
