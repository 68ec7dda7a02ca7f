// The module-wide sampler behind the libtop_* functions, and the helpers on
// sampler times and states.
#include "monitor/sampler/libtop.h"

#include <cassert>
#include <memory>

#include "monitor/sampler/process_sampler.h"
#include "platform/clock.h"
#include "platform/process_table.h"
#include "platform/registry.h"

namespace hubwarden {

namespace {

std::unique_ptr<ProcessSampler> gSampler;
// Set apart from the sampler so that it may be chosen before libtop_init.
uint32_t gRegionInterval = 0;

}  // namespace

libtop_time_t libtop_time_sub(libtop_time_t a, libtop_time_t b) {
  libtop_time_t d;
  d.seconds = a.seconds - b.seconds;
  d.microseconds = a.microseconds - b.microseconds;
  if (d.microseconds < 0) {
    d.seconds -= 1;
    d.microseconds += 1000000;
  }
  return d;
}

double libtop_time_seconds(libtop_time_t t) {
  return static_cast<double>(t.seconds) + static_cast<double>(t.microseconds) / 1e6;
}

int libtop_init(libtop_print_t print, void* user) {
  gSampler.reset();
  if (!platform::has<platform::ProcessTable>()) {
    if (print) print(user, "%s(): Error in process table: %s", "libtop_init", "none installed");
    return -1;
  }
  platform::Clock* clock = platform::has<platform::Clock>() ? &platform::get<platform::Clock>() : nullptr;
  gSampler = std::make_unique<ProcessSampler>(platform::get<platform::ProcessTable>(), clock, print, user);
  gSampler->set_region_interval(gRegionInterval);
  return 0;
}

void libtop_fini() {
  gSampler.reset();
  gRegionInterval = 0;
}

int libtop_sample(bool regions, bool frameworks) {
  (void)frameworks;
  if (!gSampler) return -1;
  SampleScope scope;
  scope.regions = regions;
  return gSampler->sample(scope);
}

const libtop_tsamp_t* libtop_tsamp() { return gSampler ? &gSampler->tsamp() : nullptr; }

void libtop_psort(libtop_sort_t compare, const void* data) {
  assert(gSampler && "tsamp.seq != 0");
  if (gSampler) gSampler->sort(compare, data);
}

const libtop_pinfo_t* libtop_piterate() {
  assert(gSampler && "tsamp.seq != 0");
  return gSampler ? gSampler->next() : nullptr;
}

int libtop_preg(uint32_t pid, int mode) { return gSampler ? gSampler->set_region_mode(pid, mode) : -1; }

const char* libtop_state_str(uint32_t state) {
  static const char* const kNames[] = {"zombie", "running", "stuck",  "sleeping",
                                       "idle",   "stopped", "halted", "unknown"};
  assert(state <= LIBTOP_STATE_MAX);
  if (state > static_cast<uint32_t>(LIBTOP_STATE_MAX)) return kNames[LIBTOP_STATE_UNKNOWN];
  return kNames[state];
}

const char* libtop_username(uint32_t uid) { return gSampler ? gSampler->username(uid) : nullptr; }

int libtop_set_interval(uint32_t interval) {
  if (interval > 100) return -1;
  gRegionInterval = interval;
  if (gSampler) gSampler->set_region_interval(interval);
  return 0;
}

}  // namespace hubwarden
