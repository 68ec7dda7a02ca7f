#include "platform/registry.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace platform {
namespace {

// Service families of this test alone, so that nothing else in the
// process has them.
struct Greeter {
  virtual ~Greeter() = default;
  virtual std::string greet() = 0;
};
struct Counter {
  virtual ~Counter() = default;
};

struct NamedGreeter : Greeter {
  NamedGreeter(std::string name, std::vector<std::string>* destroyed) : name(std::move(name)), destroyed(destroyed) {}
  ~NamedGreeter() override {
    if (destroyed) destroyed->push_back(name);
  }
  std::string greet() override { return name; }
  std::string name;
  std::vector<std::string>* destroyed;
};

struct TrackedCounter : Counter {
  explicit TrackedCounter(std::vector<std::string>* destroyed) : destroyed(destroyed) {}
  ~TrackedCounter() override { destroyed->push_back("counter"); }
  std::vector<std::string>* destroyed;
};

TEST(RegistryTest, BundleIsPublishedOnceSealedAndFreedLastAddedFirst) {
  std::vector<std::string> destroyed;
  {
    ServiceBundle bundle;
    EXPECT_FALSE(has<Greeter>());
    NamedGreeter* first = bundle.add<Greeter>(std::make_unique<NamedGreeter>("first", &destroyed));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(bundle.add<Greeter>(std::make_unique<NamedGreeter>("second", &destroyed)), nullptr)
        << "a family holds one implementation";
    EXPECT_EQ(destroyed, std::vector<std::string>{"second"}) << "a refused service is not kept";
    EXPECT_EQ(bundle.add<Counter>(std::unique_ptr<TrackedCounter>()), nullptr);
    EXPECT_FALSE(has<Greeter>()) << "nothing is in effect before publishing";

    ASSERT_TRUE(publish(&bundle));
    EXPECT_EQ(&get<Greeter>(), first);
    EXPECT_EQ(find<Counter>(), nullptr);

    ServiceBundle other;
    EXPECT_FALSE(publish(&other)) << "only one bundle is published at a time";
    EXPECT_EQ(&get<Greeter>(), first);

    ASSERT_NE(bundle.add<Counter>(std::make_unique<TrackedCounter>(&destroyed)), nullptr);
    bundle.seal();
    EXPECT_EQ(bundle.add<Counter>(std::make_unique<TrackedCounter>(&destroyed)), nullptr) << "sealed";
    EXPECT_TRUE(has<Counter>());
    destroyed.clear();

    withdraw(&other);  // not the published one: nothing happens
    EXPECT_TRUE(has<Greeter>());
    withdraw(&bundle);
    EXPECT_FALSE(has<Greeter>());
    EXPECT_TRUE(publish(&other)) << "the slot is free again";
    withdraw(&other);
  }
  EXPECT_EQ(destroyed, (std::vector<std::string>{"counter", "first"}));
}

TEST(RegistryTest, OverridesStackInFrontOfTheBundleAndRestore) {
  ServiceBundle bundle;
  NamedGreeter published("published", nullptr), fake("fake", nullptr), inner("inner", nullptr);
  ASSERT_TRUE(bundle.add_borrowed<Greeter>(&published));
  ASSERT_TRUE(publish(&bundle));
  {
    testing::ScopedService<Greeter> outer(&fake);
    EXPECT_EQ(get<Greeter>().greet(), "fake");
    {
      testing::ScopedService<Greeter> hidden(nullptr);
      EXPECT_FALSE(has<Greeter>()) << "a test can take a published service away";
      testing::ScopedService<Greeter> nested(&inner);
      EXPECT_EQ(get<Greeter>().greet(), "inner");
    }
    EXPECT_EQ(get<Greeter>().greet(), "fake");
  }
  EXPECT_EQ(get<Greeter>().greet(), "published");
  withdraw(&bundle);
  EXPECT_FALSE(has<Greeter>());
}

TEST(RegistryDeathTest, MissingServiceStopsWithItsNameRatherThanDereferencingNull) {
  EXPECT_DEATH(get<Counter>(), "Counter.*not installed");
}

}  // namespace
}  // namespace platform
