#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "monitor/monitor_test_support.h"
#include "monitor/sampler/libtop.h"
#include "monitor/sampler/process_sampler.h"
#include "monitor/sampler/rb_sort.h"
#include "monitor/sampler/username_cache.h"
#include "platform/fake/fake_process_table.h"

namespace hubwarden {
namespace {

using testing::Installed;
using testing::ManualClock;

struct Item {
  int pid;
  int key;
};

int by_key(const void*, const Item* a, const Item* b) { return a->key < b->key ? -1 : (a->key > b->key ? 1 : 0); }
// Says "less" as -2: by the placement rule that is not "left".
int by_key_wide(const void*, const Item* a, const Item* b) { return a->key < b->key ? -2 : (a->key > b->key ? 1 : 0); }

std::vector<int> pids_of(const std::vector<const Item*>& items) {
  std::vector<int> pids;
  for (const Item* i : items) pids.push_back(i->pid);
  return pids;
}

// Inserted in ascending pid, items with equal keys keep pid order: the
// result must equal a stable sort, whatever the key pattern.
TEST(RedBlackSortTest, MatchesStableSortAndStaysBalanced) {
  std::mt19937 random(7);
  for (int key_range : {1, 3, 50, 1000000}) {
    std::vector<Item> items(2000);
    for (int i = 0; i < 2000; ++i) items[i] = Item{i + 1, static_cast<int>(random() % key_range)};
    RedBlackSort<Item> tree(by_key, nullptr);
    for (const Item& item : items) tree.insert(&item);
    std::vector<const Item*> sorted;
    tree.in_order(&sorted);

    std::vector<const Item*> reference;
    for (const Item& item : items) reference.push_back(&item);
    std::stable_sort(reference.begin(), reference.end(), [](const Item* a, const Item* b) { return a->key < b->key; });
    EXPECT_EQ(pids_of(sorted), pids_of(reference)) << key_range;
    EXPECT_TRUE(tree.is_valid());
    EXPECT_LE(tree.height(), 22u);  // 2 log2(2001)
  }

  // Ascending input would make a plain search tree a list.
  std::vector<Item> ascending(4095);
  for (int i = 0; i < 4095; ++i) ascending[i] = Item{i, i};
  RedBlackSort<Item> tree(by_key, nullptr);
  for (const Item& item : ascending) tree.insert(&item);
  EXPECT_TRUE(tree.is_valid());
  EXPECT_LE(tree.height(), 24u);
}

TEST(RedBlackSortTest, OnlyMinusOneGoesLeft) {
  std::vector<Item> items = {{1, 5}, {2, 3}, {3, 4}};
  RedBlackSort<Item> tree(by_key_wide, nullptr);
  for (const Item& item : items) tree.insert(&item);
  std::vector<const Item*> out;
  tree.in_order(&out);
  EXPECT_EQ(pids_of(out), (std::vector<int>{1, 2, 3}));  // "less" never moved anything left
}

TEST(LibtopI64Test, AccumulatesAcrossThirtyTwoBitWrap) {
  libtop_i64_t c = libtop_i64_init(4294967290u);
  libtop_i64_update(&c, 4294967295u);
  EXPECT_EQ(libtop_i64_value(&c), 4294967295);
  libtop_i64_update(&c, 5);  // wrapped
  EXPECT_EQ(libtop_i64_value(&c), 4294967301);
  libtop_i64_update(&c, 4294967296u + 10);  // a 64-bit reading: low bits count
  EXPECT_EQ(libtop_i64_value(&c), 4294967306);
  libtop_i64_update(&c, 8);  // went back a little
  EXPECT_EQ(libtop_i64_value(&c), 4294967304);

  libtop_i64_t top = libtop_i64_init(UINT64_MAX);
  EXPECT_EQ(libtop_i64_value(&top), INT64_MAX);
  libtop_i64_update(&top, static_cast<uint32_t>(UINT64_MAX) + 100u);
  EXPECT_EQ(libtop_i64_value(&top), INT64_MAX);
}

TEST(UsernameCacheTest, KnownAndUnknownUsers) {
  UsernameCache cache;
  ASSERT_NE(cache.lookup(0), nullptr);
  EXPECT_STREQ(cache.lookup(0), "root");
  EXPECT_EQ(cache.lookup(3999999999u), nullptr);
  EXPECT_EQ(cache.lookup(3999999999u), nullptr);
  EXPECT_EQ(cache.size(), 2u);  // misses are remembered too
}

class SamplerTest : public ::testing::Test {
 protected:
  SamplerTest() : table_slot_(&table_), clock_slot_(&clock_) {}
  ~SamplerTest() override { libtop_fini(); }

  static void record_print(void* user, const char* format, ...) {
    static_cast<std::vector<std::string>*>(user)->push_back(format);
  }

  std::vector<uint32_t> walk() {
    std::vector<uint32_t> pids;
    while (const libtop_pinfo_t* p = libtop_piterate()) pids.push_back(p->pid);
    return pids;
  }

  const libtop_pinfo_t* record(uint32_t pid) {
    const libtop_pinfo_t* found = nullptr;
    while (const libtop_pinfo_t* p = libtop_piterate())
      if (p->pid == pid) found = p;
    return found;
  }

  platform::FakeProcessTable table_;
  ManualClock clock_;
  Installed<platform::ProcessTable> table_slot_;
  Installed<platform::Clock> clock_slot_;
  std::vector<std::string> printed_;
};

TEST_F(SamplerTest, NewVanishedAndReusedProcesses) {
  table_.add(30, "c", 3000000);
  table_.add(10, "a", 1000000);
  table_.add(20, "b", 2000000).start_time = 5;
  ASSERT_EQ(libtop_init(record_print, &printed_), 0);
  EXPECT_EQ(libtop_tsamp()->seq, 0u);
  ASSERT_EQ(libtop_sample(false, false), 0);
  EXPECT_EQ(libtop_tsamp()->seq, 1u);
  EXPECT_EQ(walk(), (std::vector<uint32_t>{10, 20, 30}));

  table_.processes.erase(30);                // exited
  table_.add(40, "d", 9000000);              // started
  table_.add(20, "b2", 100).start_time = 6;  // number reused
  table_.processes[10].cpu_microseconds = 1500000;
  clock_.time += 1;
  ASSERT_EQ(libtop_sample(false, false), 0);
  const libtop_tsamp_t* t = libtop_tsamp();
  EXPECT_EQ(t->seq, 2u);
  EXPECT_EQ(libtop_time_seconds(libtop_time_sub(t->time, t->p_time)), 1.0);
  EXPECT_EQ(walk(), (std::vector<uint32_t>{10, 20, 40}));

  const libtop_pinfo_t* a = record(10);
  EXPECT_EQ(a->seq, 2u);
  EXPECT_EQ(a->p_seq, 1u);
  EXPECT_EQ(a->p_total_time.seconds, 1);
  EXPECT_EQ(a->total_time.microseconds, 500000);
  const libtop_pinfo_t* d = record(40);
  EXPECT_EQ(d->p_seq, 0u);
  EXPECT_EQ(libtop_time_seconds(libtop_time_sub(d->total_time, d->p_total_time)), 0.0);
  const libtop_pinfo_t* b = record(20);
  EXPECT_EQ(b->p_seq, 0u);
  EXPECT_EQ(b->command, "b2");

  EXPECT_EQ(libtop_preg(30, LIBTOP_PREG_OFF), -1);
  EXPECT_EQ(libtop_preg(40, LIBTOP_PREG_OFF), 0);

  // A failed listing reports and keeps the previous sample.
  table_.list_error = EACCES;
  EXPECT_EQ(libtop_sample(false, false), -1);
  EXPECT_EQ(libtop_tsamp()->seq, 2u);
  EXPECT_EQ(walk(), (std::vector<uint32_t>{10, 20, 40}));
  ASSERT_EQ(printed_.size(), 1u);
  EXPECT_EQ(printed_[0], "%s(): Error in list(): %s");
}

TEST_F(SamplerTest, SortedWalkAndRegionModes) {
  for (uint32_t pid : {5u, 3u, 9u, 1u}) {
    table_.add(pid, "p", 0).faults = 100 - pid;
    table_.process_regions[pid] = platform::ProcessRegions{pid * 10, pid};
  }
  table_.processes[9].virtual_private_bytes = 4096;
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);
  ASSERT_EQ(libtop_sample(true, false), 0);
  EXPECT_EQ(record(9)->rprvt, 90u);
  EXPECT_EQ(record(9)->rshrd, 9u);
  EXPECT_EQ(record(9)->vprvt, 4096u);

  libtop_preg(9, LIBTOP_PREG_OFF);
  ASSERT_EQ(libtop_sample(true, false), 0);
  EXPECT_EQ(record(9)->rprvt, 0u);
  EXPECT_EQ(record(5)->rprvt, 50u);
  ASSERT_EQ(libtop_sample(false, false), 0);
  EXPECT_EQ(record(5)->rprvt, 0u);

  // Descending faults, i.e. ascending pid reversed.
  libtop_psort(
      [](const void*, const libtop_pinfo_t* a, const libtop_pinfo_t* b) {
        int64_t fa = libtop_i64_value(&a->faults), fb = libtop_i64_value(&b->faults);
        return fa < fb ? -1 : (fa > fb ? 1 : 0);
      },
      nullptr);
  EXPECT_EQ(walk(), (std::vector<uint32_t>{9, 5, 3, 1}));
  EXPECT_EQ(walk(), (std::vector<uint32_t>{9, 5, 3, 1}));  // starts over after the end
  ASSERT_EQ(libtop_sample(false, false), 0);
  EXPECT_EQ(walk(), (std::vector<uint32_t>{1, 3, 5, 9}));  // a new sample drops the sort
}

TEST_F(SamplerTest, RegionIntervalReusesFigures) {
  table_.add(1, "p");
  table_.process_regions[1] = platform::ProcessRegions{100, 10};
  EXPECT_EQ(libtop_set_interval(101), -1);
  ASSERT_EQ(libtop_set_interval(2), 0);
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(libtop_sample(true, false), 0);
  EXPECT_EQ(table_.region_reads, 2);  // samples 1 and 4
  libtop_fini();
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);  // stopping forgets the interval
  table_.region_reads = 0;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(libtop_sample(true, false), 0);
  EXPECT_EQ(table_.region_reads, 3);
}

// A sampler of one's own, asked for CPU times alone and then for
// everything, as a process listing does: the baseline reads neither the
// costly parts nor the host figures, and the full sample still measures CPU
// use against it.
TEST_F(SamplerTest, ScopedSamplesReadOnlyWhatTheyAsk) {
  platform::ProcessFacts& f = table_.add(7, "p", 1000000);
  f.ports = 4;
  f.uid = 501;
  table_.process_regions[7] = platform::ProcessRegions{700, 7};
  table_.load_error = EIO;
  ProcessSampler sampler(table_, &clock_, record_print, &printed_);

  SampleScope baseline;
  baseline.parts = platform::kProcessStatOnly;
  baseline.host_load = false;
  ASSERT_EQ(sampler.sample(baseline), 0);
  EXPECT_TRUE(printed_.empty());
  EXPECT_EQ(table_.region_reads, 0);
  const libtop_pinfo_t* p = sampler.next();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->ports, 0u);
  EXPECT_EQ(p->uid, 0u);

  table_.processes[7].cpu_microseconds = 1500000;
  clock_.time += 1;
  SampleScope full;
  full.regions = true;
  ASSERT_EQ(sampler.sample(full), 0);
  EXPECT_EQ(printed_, (std::vector<std::string>{"%s(): Error in host_load(): %s"}));
  EXPECT_EQ(table_.parts_asked, (std::vector<uint32_t>{platform::kProcessStatOnly, platform::kProcessAllParts}));
  p = sampler.next();
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p->ports, 4u);
  EXPECT_EQ(p->uid, 501u);
  EXPECT_EQ(p->rprvt, 700u);
  EXPECT_EQ(p->p_seq, 1u);
  EXPECT_EQ(libtop_time_seconds(libtop_time_sub(p->total_time, p->p_total_time)), 0.5);
  EXPECT_EQ(libtop_tsamp(), nullptr);  // the module-wide sampler is another
}

TEST_F(SamplerTest, UsernamesAndStartWithoutTable) {
  ASSERT_EQ(libtop_init(nullptr, nullptr), 0);
  EXPECT_STREQ(libtop_username(0), "root");
  libtop_fini();

  Installed<platform::ProcessTable> none(nullptr);
  EXPECT_EQ(libtop_init(record_print, &printed_), -1);
  EXPECT_EQ(printed_.size(), 1u);
  EXPECT_EQ(libtop_sample(false, false), -1);
}

}  // namespace
}  // namespace hubwarden
