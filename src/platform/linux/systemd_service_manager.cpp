// Job state over systemd's D-Bus API, or from unit files when systemd is not
// there to ask.
#include "platform/linux/systemd_service_manager.h"

#include <errno.h>
#include <string.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <cstdlib>
#include <functional>
#include <mutex>
#include <optional>

#include "platform/linux/unit_files.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/paths.h"
#include "platform/registry.h"

namespace platform {

namespace {

constexpr const char kDestination[] = "org.freedesktop.systemd1";
constexpr const char kManagerPath[] = "/org/freedesktop/systemd1";
constexpr const char kManagerInterface[] = "org.freedesktop.systemd1.Manager";
constexpr const char kUnitInterface[] = "org.freedesktop.systemd1.Unit";

bool is_enabled_state(const std::string& state) { return state == "enabled" || state == "enabled-runtime"; }

// Errors after which the connection itself is suspect and worth reopening.
bool is_connection_error(int r) {
  return r == -ECONNRESET || r == -ENOTCONN || r == -EPIPE || r == -ESHUTDOWN || r == -ECONNREFUSED || r == -ECHILD;
}

void log_failure(const std::string& what, const std::string& unit, int err) {
  log_error("hubwardend: " + what + " " + unit + " failed: " + ::strerror(err));
}

}  // namespace

// One system-bus connection, used by one caller at a time.
class SystemdServiceManager::Bus {
 public:
  ~Bus() {
    if (bus_ != nullptr) sd_bus_flush_close_unref(bus_);
  }

  // The unit file state ("enabled", "disabled", "masked", ...), or nullopt
  // when systemd knows no such unit file. *status is negative when asking failed.
  std::optional<std::string> unit_file_state(const std::string& unit, int* status) {
    std::optional<std::string> state;
    *status = with_bus([&](sd_bus* bus) {
      sd_bus_error error = SD_BUS_ERROR_NULL;
      sd_bus_message* reply = nullptr;
      int r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, "GetUnitFileState", &error, &reply,
                                 "s", unit.c_str());
      if (r < 0) {
        // An unknown unit is an answer, not a failure.
        bool unknown = sd_bus_error_has_name(&error, "org.freedesktop.systemd1.NoSuchUnit") ||
                       sd_bus_error_has_name(&error, SD_BUS_ERROR_FILE_NOT_FOUND) || r == -ENOENT;
        sd_bus_error_free(&error);
        return unknown ? 0 : r;
      }
      const char* text = nullptr;
      r = sd_bus_message_read(reply, "s", &text);
      if (r >= 0 && text != nullptr) state = text;
      sd_bus_message_unref(reply);
      sd_bus_error_free(&error);
      return r < 0 ? r : 0;
    });
    return state;
  }

  // A string property of the loaded unit ("ActiveState", "Id").
  std::optional<std::string> unit_property(const std::string& unit, const char* property, int* status) {
    std::optional<std::string> value;
    *status = with_bus([&](sd_bus* bus) {
      sd_bus_error error = SD_BUS_ERROR_NULL;
      sd_bus_message* reply = nullptr;
      int r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, "LoadUnit", &error, &reply, "s",
                                 unit.c_str());
      if (r < 0) {
        sd_bus_error_free(&error);
        return r;
      }
      const char* path = nullptr;
      r = sd_bus_message_read(reply, "o", &path);
      if (r >= 0 && path != nullptr) {
        char* text = nullptr;
        r = sd_bus_get_property_string(bus, kDestination, path, kUnitInterface, property, &error, &text);
        if (r >= 0 && text != nullptr) value = text;
        ::free(text);
      }
      sd_bus_message_unref(reply);
      sd_bus_error_free(&error);
      return r < 0 ? r : 0;
    });
    return value;
  }

  // Enables (or disables) the unit file, has systemd reload, then starts
  // (or stops) the unit. Returns 0 or a negative errno.
  int switch_unit(const std::string& unit, bool enabled) {
    return with_bus([&](sd_bus* bus) {
      sd_bus_error error = SD_BUS_ERROR_NULL;
      int r = enabled ? sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, "EnableUnitFiles",
                                           &error, nullptr, "asbb", 1, unit.c_str(), 0, 0)
                      : sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, "DisableUnitFiles",
                                           &error, nullptr, "asb", 1, unit.c_str(), 0);
      if (r >= 0)
        r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, "Reload", &error, nullptr, "");
      if (r >= 0)
        r = sd_bus_call_method(bus, kDestination, kManagerPath, kManagerInterface, enabled ? "StartUnit" : "StopUnit",
                               &error, nullptr, "ss", unit.c_str(), "replace");
      if (r < 0 && sd_bus_error_is_set(&error)) {
        log_error(std::string("hubwardend: systemd: ") + (error.message ? error.message : error.name));
      }
      sd_bus_error_free(&error);
      return r < 0 ? r : 0;
    });
  }

 private:
  // Runs op with an open connection; reopens the connection once when op
  // fails in a way that points at the connection rather than the request.
  int with_bus(const std::function<int(sd_bus*)>& op) {
    std::lock_guard<std::mutex> lock(mu_);
    int r = 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
      if (bus_ != nullptr && sd_bus_is_open(bus_) <= 0) bus_ = sd_bus_flush_close_unref(bus_);
      if (bus_ == nullptr) {
        r = sd_bus_open_system(&bus_);
        if (r < 0) {
          bus_ = nullptr;
          return r;
        }
      }
      r = op(bus_);
      if (r >= 0 || !is_connection_error(r)) return r;
      bus_ = sd_bus_flush_close_unref(bus_);
    }
    return r;
  }

  std::mutex mu_;
  sd_bus* bus_ = nullptr;
};

SystemdServiceManager::SystemdServiceManager(HostServiceMap map, Mode mode,
                                             std::chrono::milliseconds process_table_max_age)
    : map_(std::move(map)),
      mode_(mode),
      process_table_max_age_(process_table_max_age),
      bus_(mode == Mode::kBus ? std::make_unique<Bus>() : nullptr) {}

SystemdServiceManager::~SystemdServiceManager() = default;

bool SystemdServiceManager::unit_installed(const std::string& unit) {
  if (bus_) {
    int status = 0;
    std::optional<std::string> state = bus_->unit_file_state(unit, &status);
    if (status >= 0) return state.has_value();
  }
  return find_unit_file(unit).has_value();
}

std::string SystemdServiceManager::active_state(const std::string& unit) {
  if (bus_) {
    int status = 0;
    std::optional<std::string> state = bus_->unit_property(unit, "ActiveState", &status);
    if (status >= 0) return state.value_or("inactive");
  }
  std::optional<UnitFileInfo> info = find_unit_file(unit);
  if (info && !info->alias_of.empty()) info = find_unit_file(info->alias_of);
  return info && unit_process_running(*info, *process_table()) ? "active" : "inactive";
}

std::shared_ptr<const ProcessSnapshot> SystemdServiceManager::process_table() {
  std::lock_guard<std::mutex> lock(process_table_mu_);
  auto now = std::chrono::steady_clock::now();
  if (!process_table_ || process_table_max_age_.count() <= 0 || now - process_table_taken_ > process_table_max_age_) {
    process_table_ = std::make_shared<const ProcessSnapshot>(ProcessSnapshot::take());
    process_table_taken_ = now;
  }
  return process_table_;
}

std::string SystemdServiceManager::unit_for_job(const std::string& job) {
  for (const std::string& unit : map_.units_for_job(job)) {
    if (unit_installed(unit)) return unit;
  }
  return {};
}

bool SystemdServiceManager::job_enabled(const std::string& job) {
  std::string unit = unit_for_job(job);
  if (unit.empty()) return false;
  if (bus_) {
    int status = 0;
    std::optional<std::string> state = bus_->unit_file_state(unit, &status);
    if (status >= 0 && state == "alias") {
      // Ask about the unit the alias names.
      std::optional<std::string> id = bus_->unit_property(unit, "Id", &status);
      if (status >= 0 && id) state = bus_->unit_file_state(*id, &status);
    }
    if (status >= 0) return state && is_enabled_state(*state);
  }
  return unit_file_state(unit) == UnitFileState::kEnabled;
}

int SystemdServiceManager::set_job_enabled(const std::string& job, bool enabled) {
  // The bus reaches the machine's own systemd; a sandbox switches only the
  // links under its root.
  if (bus_ && !get<Paths>().is_real_root()) {
    log_error("hubwardend: not switching job " + job + " of the machine from a sandbox root");
    return EPERM;
  }
  std::string unit = unit_for_job(job);
  if (unit.empty()) {
    log_error("hubwardend: no installed unit for job " + job);
    return ENOENT;
  }
  int err = 0;
  if (bus_) {
    int r = bus_->switch_unit(unit, enabled);
    err = r < 0 ? -r : 0;
  } else {
    err = enabled ? enable_unit_file(unit) : disable_unit_file(unit);
  }
  if (err != 0) log_failure(enabled ? "enabling" : "disabling", unit, err);
  // Whoever advertises the running services or marks them configured hears
  // of it here, on this thread, before the caller goes on.
  if (err == 0) default_center().post(Notification{"setState", unit, {}});
  return err;
}

SystemdServiceManager::Mode default_service_manager_mode() {
  bool real_root = get<Paths>().is_real_root();
  return real_root && sd_booted() > 0 ? SystemdServiceManager::Mode::kBus : SystemdServiceManager::Mode::kUnitFiles;
}

std::shared_ptr<SystemdServiceManager> make_shared_systemd_service_manager() {
  return std::make_shared<SystemdServiceManager>(load_host_service_map(), default_service_manager_mode());
}

std::unique_ptr<ServiceManager> make_systemd_service_manager() {
  return std::make_unique<SystemdServiceManager>(load_host_service_map(), default_service_manager_mode());
}

}  // namespace platform
