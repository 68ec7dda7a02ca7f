// How the module reaches each platform service. The host builds one
// ServiceBundle holding an implementation of every family (Linux ones in
// production), publishes it, checks it, and seals it: from then on the set
// of services never changes while requests, idle passes and background work
// read it from any thread. (A bundle is published while it is still being
// filled because the services made later log and find their files through
// those added first; nothing but the building thread uses it until sealed.) A service whose
// configuration can be reloaded does so inside its own object, which stays
// the one published.
//
// Lookups (find, has, get) are safe from any thread and take no lock.
// publish, seal and withdraw are called by the host alone, at start and at
// exit.
//
// Tests swap in fakes through platform::testing::ScopedService, an override
// layer consulted before the published bundle; production code never uses it.
#pragma once

#include <array>
#include <memory>
#include <typeinfo>
#include <vector>

namespace platform {

namespace registry_detail {

inline constexpr int kMaxServices = 64;

// A small dense number per service type, handed out on first use.
int allocate_service_id();
template <typename Service>
int service_id() {
  static const int id = allocate_service_id();
  return id;
}

// The implementation of service number id: an override when a test set
// one, else the published bundle's, else nullptr.
void* lookup(int id);
// Reports the missing service and aborts; reached only through get<T>() of
// a service that is neither published nor overridden.
[[noreturn]] void missing_service(const char* type_name);

struct Override {
  void* impl;
  bool active;
};
Override override_of(int id);
void set_override(int id, Override value);

}  // namespace registry_detail

// One implementation per service family, owned (or, for services that live
// elsewhere such as the daemon's run loop, borrowed). Built on one thread,
// then sealed and only read.
class ServiceBundle {
 public:
  ServiceBundle() = default;
  // Destroys the owned services, the last added first, so that a service
  // goes before those it was built on.
  ~ServiceBundle();
  ServiceBundle(const ServiceBundle&) = delete;
  ServiceBundle& operator=(const ServiceBundle&) = delete;

  // Adds impl as the bundle's Service and keeps it alive with the bundle.
  // Returns impl, or nullptr (impl destroyed) when impl is null, the bundle
  // is sealed, or it already holds a Service.
  template <typename Service, typename Impl>
  Impl* add(std::unique_ptr<Impl> impl) {
    return add<Service, Impl>(std::shared_ptr<Impl>(std::move(impl)));
  }
  template <typename Service, typename Impl>
  Impl* add(std::shared_ptr<Impl> impl) {
    Impl* raw = impl.get();
    Service* as_service = raw;
    return put(registry_detail::service_id<Service>(), as_service, std::move(impl)) ? raw : nullptr;
  }
  // Adds impl without owning it; it must outlive the bundle. Same refusals.
  template <typename Service>
  bool add_borrowed(Service* impl) {
    return put(registry_detail::service_id<Service>(), impl, nullptr);
  }

  // This bundle's Service, or nullptr.
  template <typename Service>
  Service* find() const {
    return static_cast<Service*>(slots_[registry_detail::service_id<Service>()]);
  }

  // Refuses every later add. REQUIRES: called on the building thread
  // before any other thread uses the bundle.
  void seal() { sealed_ = true; }
  bool sealed() const { return sealed_; }

 private:
  friend void* registry_detail::lookup(int id);
  bool put(int id, void* impl, std::shared_ptr<void> keep);

  std::array<void*, registry_detail::kMaxServices> slots_{};
  std::vector<std::shared_ptr<void>> owned_;  // in order of adding
  bool sealed_ = false;
};

// Makes bundle the process's services. Returns false, and changes nothing,
// when another bundle is published.
bool publish(const ServiceBundle* bundle);
// Stops publishing bundle (nothing happens when it is not the published
// one). REQUIRES: no thread still uses its services.
void withdraw(const ServiceBundle* bundle);

// The Service in effect, or nullptr when there is none.
template <typename Service>
Service* find() {
  return static_cast<Service*>(registry_detail::lookup(registry_detail::service_id<Service>()));
}

template <typename Service>
bool has() {
  return find<Service>() != nullptr;
}

// The Service in effect. A missing one stops the process with a message
// naming it, in every build; the host refuses to start without the services
// it requires, so only optional ones need has() or find() first.
template <typename Service>
Service& get() {
  if (Service* s = find<Service>()) return *s;
  registry_detail::missing_service(typeid(Service).name());
}

namespace testing {

// For tests and benchmarks: makes impl the Service in effect while it
// lives, in front of any published bundle; nullptr hides the Service.
// Restores what was in effect before. Not for concurrent use with another
// ScopedService of the same Service.
template <typename Service>
class ScopedService {
 public:
  explicit ScopedService(Service* impl)
      : id_(registry_detail::service_id<Service>()), previous_(registry_detail::override_of(id_)) {
    registry_detail::set_override(id_, {impl, true});
  }
  ~ScopedService() { registry_detail::set_override(id_, previous_); }
  ScopedService(const ScopedService&) = delete;
  ScopedService& operator=(const ScopedService&) = delete;

 private:
  const int id_;
  const registry_detail::Override previous_;
};

// For benchmarks that set services up and tear them down in separate
// functions: impl overrides the Service until the next call; nullptr drops
// the override.
template <typename Service>
void install(Service* impl) {
  registry_detail::set_override(registry_detail::service_id<Service>(), {impl, impl != nullptr});
}

}  // namespace testing

}  // namespace platform
