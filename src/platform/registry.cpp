// The published service bundle and the tests' override layer.
#include "platform/registry.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace platform {
namespace registry_detail {
namespace {

std::atomic<int> gNextId{0};
std::atomic<const ServiceBundle*> gPublished{nullptr};

// Overrides are rare and set only by tests, so one counter tells the
// lookups whether to look at them at all.
std::atomic<int> gActiveOverrides{0};
std::array<std::atomic<void*>, kMaxServices> gOverrideImpl{};
std::array<std::atomic<bool>, kMaxServices> gOverrideActive{};

}  // namespace

int allocate_service_id() {
  int id = gNextId.fetch_add(1);
  if (id >= kMaxServices) {
    std::fprintf(stderr, "platform: more than %d service families; raise kMaxServices\n", kMaxServices);
    std::abort();
  }
  return id;
}

void* lookup(int id) {
  if (gActiveOverrides.load(std::memory_order_acquire) > 0 && gOverrideActive[id].load(std::memory_order_acquire))
    return gOverrideImpl[id].load(std::memory_order_acquire);
  const ServiceBundle* bundle = gPublished.load(std::memory_order_acquire);
  return bundle ? bundle->slots_[id] : nullptr;
}

void missing_service(const char* type_name) {
  std::fprintf(stderr, "platform: service %s used but not installed\n", type_name);
  std::abort();
}

Override override_of(int id) {
  return {gOverrideImpl[id].load(std::memory_order_acquire), gOverrideActive[id].load(std::memory_order_acquire)};
}

void set_override(int id, Override value) {
  bool was_active = gOverrideActive[id].load(std::memory_order_acquire);
  gOverrideImpl[id].store(value.impl, std::memory_order_release);
  gOverrideActive[id].store(value.active, std::memory_order_release);
  if (value.active && !was_active) gActiveOverrides.fetch_add(1, std::memory_order_acq_rel);
  if (!value.active && was_active) gActiveOverrides.fetch_sub(1, std::memory_order_acq_rel);
}

}  // namespace registry_detail

ServiceBundle::~ServiceBundle() {
  while (!owned_.empty()) owned_.pop_back();
}

bool ServiceBundle::put(int id, void* impl, std::shared_ptr<void> keep) {
  if (impl == nullptr || sealed_ || slots_[id] != nullptr) return false;
  slots_[id] = impl;
  if (keep) owned_.push_back(std::move(keep));
  return true;
}

bool publish(const ServiceBundle* bundle) {
  if (bundle == nullptr) return false;
  const ServiceBundle* expected = nullptr;
  return registry_detail::gPublished.compare_exchange_strong(expected, bundle, std::memory_order_acq_rel);
}

void withdraw(const ServiceBundle* bundle) {
  const ServiceBundle* expected = bundle;
  registry_detail::gPublished.compare_exchange_strong(expected, nullptr, std::memory_order_acq_rel);
}

}  // namespace platform
