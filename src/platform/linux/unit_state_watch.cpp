// Unit state changes from systemd's bus signals.
#include "platform/linux/unit_state_watch.h"

#include <sys/epoll.h>
#include <systemd/sd-bus.h>

#include <map>

#include "platform/host_services.h"
#include "platform/linux/system_bus.h"
#include "platform/log.h"
#include "platform/notifications.h"
#include "platform/registry.h"

namespace platform {

namespace {

constexpr const char* kUnitPathPrefix = "/org/freedesktop/systemd1/unit";
constexpr const char* kMatch =
    "type='signal',sender='org.freedesktop.systemd1',interface='org.freedesktop.DBus.Properties',"
    "member='PropertiesChanged',arg0='org.freedesktop.systemd1.Unit'";

// The new "ActiveState" among a PropertiesChanged signal's changed
// properties, or "" when the signal does not carry it.
std::string changed_active_state(sd_bus_message* m) {
  const char* interface = nullptr;
  if (sd_bus_message_read(m, "s", &interface) < 0) return "";
  if (sd_bus_message_enter_container(m, 'a', "{sv}") < 0) return "";
  std::string state;
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* name = nullptr;
    if (sd_bus_message_read(m, "s", &name) < 0) break;
    if (std::string_view(name) == "ActiveState") {
      const char* value = nullptr;
      if (sd_bus_message_enter_container(m, 'v', "s") >= 0 && sd_bus_message_read(m, "s", &value) >= 0 && value)
        state = value;
      break;
    }
    if (sd_bus_message_skip(m, "v") < 0 || sd_bus_message_exit_container(m) < 0) break;
  }
  return state;
}

class BusUnitStateWatch : public UnitStateWatch {
 public:
  BusUnitStateWatch(RunLoop* loop, SdBusPtr bus, std::set<std::string> units, std::chrono::milliseconds settle)
      : loop_(loop), bus_(std::move(bus)), units_(std::move(units)), settle_(settle) {}

  ~BusUnitStateWatch() override {
    if (watch_ != 0) loop_->cancel(watch_);
    for (const auto& [unit, timer] : pending_) loop_->cancel(timer);
    sd_bus_slot_unref(slot_);
  }

  bool start() {
    if (sd_bus_add_match(bus_.get(), &slot_, kMatch, &BusUnitStateWatch::on_signal, this) < 0) return false;
    // The manager sends unit signals only while someone has subscribed; the
    // subscription ends with our connection. A bus without systemd on it
    // (a sandbox's) simply never sends any.
    // Asked without waiting for the answer, so that a manager slow to
    // answer never holds up the daemon's start.
    sd_bus_call_method_async(bus_.get(), nullptr, "org.freedesktop.systemd1", "/org/freedesktop/systemd1",
                             "org.freedesktop.systemd1.Manager", "Subscribe", nullptr, nullptr, "");
    watch_ = loop_->watch_fd(sd_bus_get_fd(bus_.get()), EPOLLIN, [this](uint32_t) { process(); });
    if (watch_ == 0) return false;
    // Messages that arrived during the calls above are already buffered.
    loop_->post([this] { process(); });
    return true;
  }

 private:
  static int on_signal(sd_bus_message* m, void* self, sd_bus_error*) {
    static_cast<BusUnitStateWatch*>(self)->handle(m);
    return 0;
  }

  void process() {
    int r;
    while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
    }
    if (r < 0 && !broken_) {
      broken_ = true;
      log_error("hubwardend: lost the system bus; unit state changes are no longer watched");
      loop_->cancel(watch_);
      watch_ = 0;
      return;
    }
    sd_bus_flush(bus_.get());
  }

  void handle(sd_bus_message* m) {
    char* unit = nullptr;
    if (sd_bus_path_decode(sd_bus_message_get_path(m), kUnitPathPrefix, &unit) <= 0 || unit == nullptr) return;
    std::string name(unit);
    free(unit);
    if (units_.count(name) == 0) return;
    std::string state = changed_active_state(m);
    if (state.empty()) return;
    std::string& last = last_state_[name];
    if (state == last) return;
    last = state;
    if (pending_.count(name)) return;
    pending_[name] = loop_->add_timer(settle_, [this, name] {
      pending_.erase(name);
      // The observers re-advertise services, which asks every service for
      // its state: work for the background queue, not the loop.
      auto post = [name] { default_center().post(Notification{"setState", name, {}}); };
      if (auto* queue = find<BackgroundQueue>())
        queue->dispatch(post);
      else
        post();
    });
  }

  RunLoop* const loop_;
  SdBusPtr bus_;
  const std::set<std::string> units_;
  const std::chrono::milliseconds settle_;
  sd_bus_slot* slot_ = nullptr;
  RunLoop::Id watch_ = 0;
  bool broken_ = false;
  std::map<std::string, std::string> last_state_;
  std::map<std::string, RunLoop::Id> pending_;
};

}  // namespace

std::unique_ptr<UnitStateWatch> make_unit_state_watch(RunLoop* loop, std::set<std::string> units,
                                                      std::chrono::milliseconds settle) {
  if (loop == nullptr || units.empty()) return nullptr;
  SdBusPtr bus = open_system_bus();
  if (!bus) return nullptr;
  auto watch = std::make_unique<BusUnitStateWatch>(loop, std::move(bus), std::move(units), settle);
  if (!watch->start()) return nullptr;
  return watch;
}

}  // namespace platform
