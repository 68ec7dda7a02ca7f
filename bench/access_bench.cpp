// Access questions against a large record store: 1,000 groups in each of
// the access, administration and monitoring families under a sandbox root,
// the user a member of every tenth group (one in ten of those only through
// a nested group). Times one "which services may this user use" and one
// tiered administrator summary per iteration, with the record cache warm
// (the steady state of a server answering requests) and cold (a fresh store
// object, every record parsed once); and the NSS side of membership at the
// real root.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "access/tiered_admin.h"
#include "platform/directory.h"
#include "platform/host_services.h"
#include "platform/linux/directory_store.h"
#include "platform/paths.h"
#include "platform/registry.h"
#include "plist/codec.h"
#include "request/operations.h"

namespace {

using plist::Array;
using plist::Dict;
using plist::Value;

class Alice : public platform::Requester {
 public:
  std::string user_for(const Dict*) override { return "alice"; }
};

// Built once for the whole run: writing 3,000 records takes a while, and
// the store must be older than its freshly-changed window before the cache
// trusts file identities alone.
class Store {
 public:
  Store() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "hubwarden-access-bench-XXXXXX").string();
    dir_ = ::mkdtemp(tmpl.data());
    paths_ = std::make_unique<platform::Paths>(dir_);
    platform::testing::install<platform::Paths>(paths_.get());
    platform::testing::install<platform::Requester>(&requester_);
    std::string groups = dir_ + "/var/db/hubwarden/directory/groups/";
    std::filesystem::create_directories(groups);
    std::filesystem::create_directories(dir_ + "/var/db/hubwarden/directory/users");
    write(dir_ + "/var/db/hubwarden/directory/users/alice.plist",
          Dict{{"dsAttrTypeStandard:RecordName", Array{Value("alice")}},
               {"dsAttrTypeStandard:GeneratedUID", Array{Value("A-0001")}},
               {"dsAttrTypeStandard:PrimaryGroupID", Array{Value("20")}}});
    const char* access_services[] = {"filer", "addressbook", "backup", "calendar", "chat", "mail", "smb", "vpn"};
    for (const char* family : {"com.marlo.access_", "com.marlo.admin_", "com.marlo.monitor_"}) {
      for (int i = 0; i < 1000; ++i) {
        std::string name = family;
        if (i < 8 && std::string_view(family) == "com.marlo.access_") {
          name += access_services[i];
        } else {
          char suffix[16];
          std::snprintf(suffix, sizeof suffix, "svc%04d", i);
          name += suffix;
        }
        Array members{Value("bob"), Value("carol"), Value("dave")};
        Dict record{{"dsAttrTypeStandard:RecordName", Array{Value(name)}},
                    {"dsAttrTypeStandard:GeneratedUID", Array{Value(name + "-GUID")}},
                    {"dsAttrTypeStandard:PrimaryGroupID", Array{Value(std::to_string(2000 + i))}}};
        if (i % 100 == 50) {
          record.set("dsAttrTypeStandard:NestedGroups", Array{Value("STAFF-GUID")});
        } else if (i % 10 == 0) {
          members.emplace_back("alice");
        }
        record.set("dsAttrTypeStandard:GroupMembership", std::move(members));
        write(groups + name + ".plist", record);
      }
    }
    write(groups + "staff.plist", Dict{{"dsAttrTypeStandard:RecordName", Array{Value("staff")}},
                                       {"dsAttrTypeStandard:GeneratedUID", Array{Value("STAFF-GUID")}},
                                       {"dsAttrTypeStandard:GroupMembership", Array{Value("alice")}}});
    ::sleep(4);
  }
  ~Store() {
    platform::testing::install<platform::Requester>(nullptr);
    platform::testing::install<platform::Paths>(nullptr);
    std::filesystem::remove_all(dir_);
  }

 private:
  static void write(const std::string& path, const Dict& record) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (!f) std::abort();
    std::string text = plist::write_xml(Value(record));
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }

  std::string dir_;
  std::unique_ptr<platform::Paths> paths_;
  Alice requester_;
};

Store& store() {
  static Store s;
  return s;
}

void BM_SaclsForUserWarm(benchmark::State& state) {
  store();
  std::unique_ptr<platform::Directory> directory = platform::make_directory_store();
  platform::testing::install<platform::Directory>(directory.get());
  Value user("alice");
  size_t services = 0;
  for (auto _ : state) {
    std::optional<Array> sacls = hubwarden::sacls_for_user(&user, nullptr, true);
    if (!sacls) state.SkipWithError("no answer");
    services = sacls ? sacls->size() : 0;
  }
  state.counters["services"] = static_cast<double>(services);
  platform::testing::install<platform::Directory>(nullptr);
}
BENCHMARK(BM_SaclsForUserWarm)->Unit(benchmark::kMillisecond);

void BM_TieredAdminSummaryWarm(benchmark::State& state) {
  store();
  std::unique_ptr<platform::Directory> directory = platform::make_directory_store();
  platform::testing::install<platform::Directory>(directory.get());
  Dict context;
  size_t entries = 0;
  for (auto _ : state) {
    std::optional<Dict> result;
    if (hubwarden::get_tiered_admin_summary(nullptr, result, &context)) state.SkipWithError("no summary");
    entries = result && result->find_dict("tieredAdminSummary") ? result->find_dict("tieredAdminSummary")->size() : 0;
  }
  state.counters["entries"] = static_cast<double>(entries);
  platform::testing::install<platform::Directory>(nullptr);
}
BENCHMARK(BM_TieredAdminSummaryWarm)->Unit(benchmark::kMillisecond);

void BM_SaclsForUserCold(benchmark::State& state) {
  store();
  Value user("alice");
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<platform::Directory> directory = platform::make_directory_store();
    platform::testing::install<platform::Directory>(directory.get());
    state.ResumeTiming();
    benchmark::DoNotOptimize(hubwarden::sacls_for_user(&user, nullptr, true));
  }
  platform::testing::install<platform::Directory>(nullptr);
}
BENCHMARK(BM_SaclsForUserCold)->Unit(benchmark::kMillisecond);

// At the real root a group the store does not hold goes to NSS. The worst
// case: 1,000 questions about groups neither knows, each store object new
// (nothing remembered from an earlier request).
void BM_RealRootMembershipOfUnknownGroups(benchmark::State& state) {
  platform::Paths real("/");
  platform::Paths* previous = platform::find<platform::Paths>();
  platform::testing::install<platform::Paths>(&real);
  std::vector<std::string> groups;
  for (int i = 0; i < 1000; ++i) groups.push_back("com.marlo.access_svc" + std::to_string(i));
  for (auto _ : state) {
    std::unique_ptr<platform::Directory> directory = platform::make_directory_store();
    int members = 0;
    for (const std::string& g : groups) members += directory->is_member("root", g);
    benchmark::DoNotOptimize(members);
  }
  platform::testing::install<platform::Paths>(previous);
}
BENCHMARK(BM_RealRootMembershipOfUnknownGroups)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
