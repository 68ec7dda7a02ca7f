// Last admission per (rule, key), in memory: a restart of the monitor (the
// module restarts it whenever it rewrites the rules) forgets it, so a
// condition that still holds is reported once more after a restart.
#include "sentryd/throttle.h"

namespace sentryd {

bool Throttle::admit(const std::string& rule_id, const std::string& key, std::chrono::seconds period,
                     Clock::time_point now) {
  if (period.count() <= 0) return true;
  std::string id;
  id.reserve(rule_id.size() + 1 + key.size());
  id.append(rule_id).push_back('\0');
  id.append(key);
  auto it = last_.find(id);
  if (it != last_.end()) {
    if (now - it->second.at < it->second.period) return false;
    it->second = {now, period};
    return true;
  }
  if (last_.size() >= max_keys_) drop_expired(now);
  if (last_.size() >= max_keys_) return false;
  last_.emplace(std::move(id), Entry{now, period});
  return true;
}

void Throttle::drop_expired(Clock::time_point now) {
  for (auto it = last_.begin(); it != last_.end();) {
    if (now - it->second.at >= it->second.period) {
      it = last_.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace sentryd
