// The periodic update check: a scan at one position of each period, the
// announcement of its results a few idle calls later.
#include "swupdate/periodic_check.h"

#include "platform/byte_amount.h"
#include "platform/file_util.h"
#include "platform/paths.h"
#include "swupdate/swupdate_status.h"

namespace hubwarden {

namespace {

constexpr const char* kSoftwareUpdateRule = "/etc/sentryd.d/rules/SWUpdate.plist";
constexpr const char* kUpdateAvailableEvent = "com.marlo.hubwarden_info.swupdateavailable";
// Idle calls per period, and the positions within it: the scan, then the
// announcement once the scan has had time to rewrite the status file.
constexpr int kPeriodTicks = 720;
constexpr int kScanTick = 0;
constexpr int kAnnounceTick = 5;

std::string text_of(const Dict& entry, const char* key) {
  const std::string* text = entry.find_string(key);
  return text ? *text : std::string();
}

void announce_available_updates(EventPortSession& port) {
  std::optional<Dict> status = read_swupdate_status_dict();
  const Array* results = status ? status->find_array("phaseResultsArray") : nullptr;
  if (results == nullptr) return;
  for (const Value& item : *results) {
    const Dict* update = item.as_dict();
    if (update == nullptr || plist::is_flag_set(update->find("ignored"))) continue;
    const Value* kilobytes = update->find("sizeInKB");
    double bytes = kilobytes && kilobytes->is_number() ? kilobytes->to_double().value_or(0) * 1024 : 0;
    Dict event;
    event.set("event_type", kUpdateAvailableEvent);
    event.set("name", text_of(*update, "name"));
    event.set("version", text_of(*update, "version"));
    event.set("size", platform::byteAmountString(bytes));
    event.set("isRestartRequired", plist::is_flag_set(update->find("restartRequired")) ? "Yes" : "No");
    port.post(kUpdateAvailableEvent, event);
  }
}

}  // namespace

void periodic_swupdate_check(Dict* context, int tick, EventPortSession& port) {
  if (!platform::file_exists(platform::resolve(kSoftwareUpdateRule))) return;
  // The remainder keeps the sign of tick, so of the negative ticks only
  // multiples of the period land on a position.
  int position = tick % kPeriodTicks;
  if (position == kScanTick) {
    ReplySlot ignored;
    start_swupdate_scan(nullptr, ignored, context);
  } else if (position == kAnnounceTick) {
    announce_available_updates(port);
  }
}

}  // namespace hubwarden
