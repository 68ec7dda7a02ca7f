// The consolidation tiers of the history store: how coarse the stored load
// points become as they age, and which tier answers for which stretch of
// the past.
//
// Every sample is folded into the current bucket of every tier when it is
// stored, so each tier always holds exact averages of the samples that fell
// in its buckets, whatever the other tiers hold. A bucket of step s with
// end e holds the samples taken at whole seconds in (e - s, e]; its point
// is stamped e. Bucket ends are multiples of the step counted from 1970, so
// the points of one tier are evenly spaced.
//
// A query at time `now` reads each stretch of the past from one tier only:
// tier k answers for bucket ends in (after(k, now), through(k, now)]. The
// boundaries are whole buckets of the coarser side, so the stretches tile
// the time line without gap or overlap, and they depend on `now` alone:
// two queries at the same moment, one short and one long, return the same
// points for the stretch they share.
//
// Everything here is constant and pure; safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

namespace hubwardend::history {

struct Tier {
  int64_t step;      // seconds per point
  int64_t from_age;  // the tier takes over from the finer one at about this age
};

inline constexpr int64_t kHour = 3600;
inline constexpr int64_t kDay = 86400;

// The newest tier is as fine as idle passes are expected to come (one
// every ten seconds or so); a host that samples faster gets ten-second
// averages, which keeps every query's point count bounded.
inline constexpr Tier kTiers[] = {
    {10, 0}, {60, kHour}, {15 * 60, kDay}, {kHour, 7 * kDay}, {kDay, 30 * kDay},
};
inline constexpr size_t kTierCount = std::size(kTiers);

// Points older than this are dropped.
inline constexpr int64_t kRetention = 365 * kDay;

constexpr int64_t floor_to(int64_t t, int64_t unit) {
  int64_t r = t % unit;
  return r < 0 ? t - r - unit : t - r;
}

constexpr int64_t ceil_to(int64_t t, int64_t unit) {
  int64_t f = floor_to(t, unit);
  return f == t ? t : f + unit;
}

// The end of the tier's bucket that holds a sample taken at whole second t.
constexpr int64_t bucket_end(size_t tier, int64_t t) { return ceil_to(t, kTiers[tier].step); }

// The oldest bucket end (exclusive) the tier answers for at time now.
constexpr int64_t after(size_t tier, int64_t now) {
  if (tier + 1 == kTierCount) return floor_to(now - kRetention, kTiers[tier].step);
  return floor_to(now - kTiers[tier + 1].from_age, kTiers[tier + 1].step);
}

// The newest bucket end (inclusive) the tier answers for at time now: the
// bucket being filled for the newest tier, else where the finer one starts.
constexpr int64_t through(size_t tier, int64_t now) { return tier == 0 ? bucket_end(0, now) : after(tier - 1, now); }

// The most points the tier can return at any moment.
constexpr int64_t max_points(size_t tier) {
  int64_t older_age = tier + 1 == kTierCount ? kRetention : kTiers[tier + 1].from_age;
  int64_t older_step = tier + 1 == kTierCount ? kTiers[tier].step : kTiers[tier + 1].step;
  // The newer end can lie up to one step ahead (the newest tier's bucket in
  // progress) and the older one up to one coarser step behind its age.
  int64_t widest = older_age - kTiers[tier].from_age + (older_step - 1) + (tier == 0 ? kTiers[0].step - 1 : 0);
  return widest / kTiers[tier].step;
}

constexpr int64_t max_points_in_all_tiers() {
  int64_t total = 0;
  for (size_t k = 0; k < kTierCount; ++k) total += max_points(k);
  return total;
}

constexpr bool tiers_nest() {
  for (size_t k = 1; k < kTierCount; ++k)
    if (kTiers[k].step % kTiers[k - 1].step != 0 || kTiers[k].from_age <= kTiers[k - 1].from_age) return false;
  return kTiers[0].from_age == 0 && kRetention > kTiers[kTierCount - 1].from_age;
}
// Boundaries aligned to the coarser step are then aligned to the finer one.
static_assert(tiers_nest(), "each tier's step must divide the next one's, and ages must grow");

}  // namespace hubwardend::history
