// In-memory history service for tests.
#include "platform/fake/fake_history.h"

#include <cmath>
#include <string>

namespace platform {

ErrorName FakeHistoryService::update(const plist::Array& sample, plist::Dict*) {
  if (update_error) return update_error;
  stored.push_back({now, sample});
  return nullptr;
}

ErrorName FakeHistoryService::get(const plist::Value* variant, const plist::Value& time_scale,
                                  std::optional<plist::Array>* samples, plist::Dict*) {
  time_scales_asked.push_back(time_scale);
  variants_asked.push_back(variant ? std::optional<plist::Value>(*variant) : std::nullopt);
  samples->reset();
  if (get_error) return get_error;
  double scale = time_scale.to_double().value_or(-1);
  const std::string* only = variant ? variant->as_string() : nullptr;
  plist::Array out;
  for (const Stored& s : stored) {
    if (!(s.time >= now - scale)) continue;
    plist::Dict d;
    d.set("t", plist::Value(static_cast<int64_t>(std::floor(s.time))));
    for (size_t i = 0; i < s.sample.size(); ++i) {
      std::string key = "v" + std::to_string(i + 1);
      if (!only || *only == key) d.set(key, s.sample[i]);
    }
    out.push_back(std::move(d));
  }
  if (!out.empty()) *samples = std::move(out);
  return nullptr;
}

}  // namespace platform
