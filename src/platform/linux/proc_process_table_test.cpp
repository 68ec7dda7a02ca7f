#include "platform/linux/proc_process_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/linux/basics_test_support.h"

namespace platform {
namespace {

namespace fs = std::filesystem;

class ProcTree : public testing::ScratchDir {
 public:
  // A process with a stat line built from its parts, a status with the
  // given real user, and descriptors fds.
  void add(int pid, const std::string& comm, char state, int fds = 0, const std::string& uid = "501",
           const std::string& vm = "VmData:\t     100 kB\nVmStk:\t      28 kB\n") {
    std::string p = std::to_string(pid), d = "/" + p;
    // pid (comm) state ppid pgrp session tty tpgid flags minflt cminflt
    // majflt cmajflt utime stime cutime cstime prio nice threads itreal
    // start vsize rss ...
    write(d + "/stat", p + " (" + comm + ") " + state + " 1 " + p +
                           " 1 0 -1 4194304 4294967300 0 7 0 250 130 0 0 20 0 3 0 9876 "
                           "10485760 -5 18446744073709551615 1 1 0 0 0 0 0 0 0 0 0 0 17 1 0 0\n");
    write(d + "/status", "Name:\tx\nState:\tS (sleeping)\nUid:\t" + uid + "\t0\t0\t0\nGid:\t20\t20\t20\t20\n" + vm);
    // Data plus stack pages: 128 kB, as the default Vm lines say.
    write(d + "/statm", "2560 100 50 10 0 " + std::to_string(128 * 1024 / ::sysconf(_SC_PAGESIZE)) + " 0\n");
    mkdir(d + "/fd");
    for (int i = 0; i < fds; ++i) write(d + "/fd/" + std::to_string(i), "");
  }
};

const ProcessFacts* find(const std::vector<ProcessFacts>& list, uint32_t pid) {
  auto it = std::find_if(list.begin(), list.end(), [pid](const ProcessFacts& f) { return f.pid == pid; });
  return it == list.end() ? nullptr : &*it;
}

TEST(ProcProcessTableTest, ParsesOddCommandNamesStatesAndEveryFigure) {
  ProcTree t;
  t.add(10, "a) b", 'S', 3);
  t.add(11, "two  spaces ", 'R');
  t.add(12, std::string("bad\xff\xfe", 5), 'D');
  t.add(13, ")", 'Z', 0, "0", "");
  t.write("/self", "not a process");  // non-numeric entries are ignored
  const std::pair<char, ProcessState> letters[] = {
      {'R', ProcessState::Running}, {'S', ProcessState::Sleeping}, {'D', ProcessState::Stuck},
      {'T', ProcessState::Stopped}, {'t', ProcessState::Stopped},  {'Z', ProcessState::Zombie},
      {'I', ProcessState::Idle},    {'X', ProcessState::Halted},   {'x', ProcessState::Halted},
      {'W', ProcessState::Unknown}, {'P', ProcessState::Unknown},
  };
  for (int i = 0; i < std::ssize(letters); ++i) t.add(100 + i, "p", letters[i].first);
  auto table = make_proc_process_table(t.dir());
  std::vector<ProcessFacts> list;
  ASSERT_EQ(table->list(&list, kProcessAllParts), 0);
  ASSERT_EQ(list.size(), 4u + std::size(letters));
  for (int i = 0; i < std::ssize(letters); ++i) {
    const ProcessFacts* f = find(list, static_cast<uint32_t>(100 + i));
    ASSERT_NE(f, nullptr) << letters[i].first;
    EXPECT_EQ(f->state, letters[i].second) << letters[i].first;
  }

  const ProcessFacts* a = find(list, 10);
  ASSERT_NE(a, nullptr);
  // Faults are kept whole beyond 32 bits; a negative rss reads as none.
  const uint64_t hz = static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
  EXPECT_EQ(
      (std::vector<uint64_t>{a->ppid, a->pgid, a->uid, a->faults, a->page_ins, a->threads, a->start_time,
                             a->virtual_bytes, a->resident_bytes, a->virtual_private_bytes, a->ports,
                             a->cpu_microseconds}),
      (std::vector<uint64_t>{1, 10, 501, 4294967300u, 7, 3, 9876, 10485760, 0, 128 * 1024, 3, 380 * 1000000 / hz}));
  EXPECT_EQ(a->command, "a) b");
  EXPECT_EQ(find(list, 11)->command, "two  spaces ");
  EXPECT_EQ(find(list, 12)->command, std::string("bad\xff\xfe", 5));
  const ProcessFacts* z = find(list, 13);
  EXPECT_EQ(z->command, ")");
  EXPECT_EQ((std::vector{a->state, find(list, 11)->state, find(list, 12)->state, z->state}),
            (std::vector{ProcessState::Sleeping, ProcessState::Running, ProcessState::Stuck, ProcessState::Zombie}));
  EXPECT_EQ(z->uid, 0u);
  EXPECT_EQ(z->virtual_private_bytes, 0u);  // no Vm lines, as for kernel threads
}

// A process whose files vanish or read wrong mid-listing drops out of the
// listing; the others stay.
TEST(ProcProcessTableTest, DropsProcessesThatCannotBeReadWhole) {
  ProcTree t;
  t.add(20, "whole", 'S');
  t.add(21, "no status", 'S');
  fs::remove(t.path("/21/status"));
  t.write("/22/stat", "22 (gone) S 1 22\n");  // truncated line
  t.write("/22/status", "Uid:\t0\t0\t0\t0\n");
  t.add(23, "wrong pid", 'S');
  t.write("/23/stat", "24 (wrong pid) S 1 23 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 1 0 0\n");
  t.add(25, "no uid", 'S');
  t.write("/25/status", "Name:\tx\n");
  t.add(26, "no paren", 'S');
  t.write("/26/stat", "26 noparen S 1 26 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 1 0 0\n");
  t.mkdir("/27");  // empty: exited before reading
  t.add(28, "no fd dir", 'S');
  fs::remove_all(t.path("/28/fd"));
  auto table = make_proc_process_table(t.dir());
  std::vector<ProcessFacts> list;
  ASSERT_EQ(table->list(&list, kProcessAllParts), 0);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_NE(find(list, 20), nullptr);
  ASSERT_NE(find(list, 28), nullptr);
  EXPECT_EQ(find(list, 28)->ports, 0u);

  EXPECT_NE(make_proc_process_table(t.path("/missing"))->list(&list, kProcessAllParts), 0);
  EXPECT_TRUE(list.empty());
}

// Each part is read only when asked for; a process missing a part that is
// not asked for stays in the listing.
TEST(ProcProcessTableTest, ReadsOnlyTheAskedParts) {
  ProcTree t;
  t.add(40, "whole", 'S', 3);
  t.add(41, "stat only", 'R', 2);
  fs::remove(t.path("/41/status"));
  fs::remove(t.path("/41/statm"));
  t.add(42, "no statm", 'S', 1);
  fs::remove(t.path("/42/statm"));
  auto table = make_proc_process_table(t.dir());
  std::vector<ProcessFacts> list;
  auto pids = [&list] {
    std::vector<uint32_t> out;
    for (const ProcessFacts& f : list) out.push_back(f.pid);
    std::sort(out.begin(), out.end());
    return out;
  };

  ASSERT_EQ(table->list(&list, kProcessStatOnly), 0);
  EXPECT_EQ(pids(), (std::vector<uint32_t>{40, 41, 42}));
  const ProcessFacts* a = find(list, 40);
  EXPECT_EQ(a->command, "whole");
  EXPECT_GT(a->cpu_microseconds, 0u);
  EXPECT_EQ((std::vector<uint64_t>{a->threads, a->start_time, a->uid, a->virtual_private_bytes, a->ports}),
            (std::vector<uint64_t>{3, 9876, 0, 0, 0}));

  ASSERT_EQ(table->list(&list, kProcessDescriptors), 0);
  EXPECT_EQ(pids(), (std::vector<uint32_t>{40, 41, 42}));
  EXPECT_EQ(find(list, 40)->ports, 3u);
  EXPECT_EQ(find(list, 41)->ports, 2u);
  EXPECT_EQ(find(list, 40)->uid, 0u);

  ASSERT_EQ(table->list(&list, kProcessPrivateSize), 0);
  EXPECT_EQ(pids(), (std::vector<uint32_t>{40}));
  EXPECT_EQ(find(list, 40)->virtual_private_bytes, 128u * 1024);  // from statm
  EXPECT_EQ(find(list, 40)->uid, 0u);

  ASSERT_EQ(table->list(&list, kProcessOwner | kProcessPrivateSize), 0);
  EXPECT_EQ(pids(), (std::vector<uint32_t>{40, 42}));  // status carries both
  EXPECT_EQ(find(list, 42)->uid, 501u);
  EXPECT_EQ(find(list, 42)->virtual_private_bytes, 128u * 1024);
}

// A server-sized table is read in slices on several threads: every record
// still lands whole, each with its own process's figures, and region
// figures come back in the order asked.
TEST(ProcProcessTableTest, LargeTablesLoseNothingAndMixNothing) {
  ProcTree t;
  auto put = [&t](const std::string& relative, const std::string& contents) {
    fs::create_directories(fs::path(t.path("/") + relative).parent_path());
    std::ofstream(t.path("/") + relative) << contents;
  };
  const long page = ::sysconf(_SC_PAGESIZE);
  std::vector<uint32_t> expected;
  for (uint32_t pid = 1000; pid < 1700; ++pid) {
    std::string p = std::to_string(pid);
    bool broken = pid % 7 == 0;
    // A broken line stops one figure short.
    put(p + "/stat", p + " (p" + p + ") S 1 " + p + " 1 0 -1 0 0 0 0 0 " + p + " 0 0 0 20 0 1 0 " + p +
                         (broken ? " 0\n" : " 0 0\n"));
    put(p + "/statm", "1 1 1 1 0 " + p + " 0\n");
    put(p + "/smaps_rollup", "Private_Dirty: " + p + " kB\nShared_Clean: 1 kB\n");
    if (!broken) expected.push_back(pid);
  }
  auto table = make_proc_process_table(t.dir());
  std::vector<ProcessFacts> list;
  ASSERT_EQ(table->list(&list, kProcessPrivateSize), 0);
  std::vector<uint32_t> pids;
  for (const ProcessFacts& f : list) {
    pids.push_back(f.pid);
    EXPECT_EQ(f.command, "p" + std::to_string(f.pid));
    EXPECT_EQ(f.pgid, f.pid);
    EXPECT_EQ(f.virtual_private_bytes, f.pid * static_cast<uint64_t>(page));
  }
  std::sort(pids.begin(), pids.end());
  EXPECT_EQ(pids, expected);

  std::vector<uint32_t> asked = {1699, 5, 1000, 1698};  // 5: no such process
  std::vector<ProcessRegions> regions;
  table->regions_of(asked, &regions);
  ASSERT_EQ(regions.size(), 4u);
  EXPECT_EQ((std::vector<uint64_t>{regions[0].resident_private, regions[1].resident_private,
                                   regions[2].resident_private, regions[3].resident_shared}),
            (std::vector<uint64_t>{1699 * 1024, 0, 1000 * 1024, 1024}));
  asked.assign(expected.begin(), expected.end());
  table->regions_of(asked, &regions);
  for (size_t i = 0; i < asked.size(); ++i) EXPECT_EQ(regions[i].resident_private, asked[i] * 1024u);
}

TEST(ProcProcessTableTest, RegionsAndHostLoad) {
  ProcTree t;
  t.add(30, "mapped", 'S');
  t.write("/30/smaps_rollup",
          "00400000-7ffff000 ---p 00000000 00:00 0 [rollup]\n"
          "Rss:                1000 kB\nPss:                 600 kB\n"
          "Shared_Clean:        300 kB\nShared_Dirty:         20 kB\n"
          "Private_Clean:       100 kB\nPrivate_Dirty:       580 kB\n");
  t.write("/loadavg", "0.50 1.25 2.00 1/123 4567\n");
  t.write("/vmstat", "nr_free_pages 1\npgpgin 9\npswpin 4\npswpout 5\npgfault 77\npgmajfault 3\n");
  t.write("/diskstats",
          "   7       0 loop0 50 0 50 0 50 0 50 0 0 0 0\n"
          "   8       0 sda 10 0 100 0 20 0 200 0 0 0 0\n"
          "   8       1 sda1 9 0 90 0 19 0 190 0 0 0 0\n"
          " 259       0 nvme0n1 1 0 8 0 2 0 16 0 0 0 0\n"
          " 259       1 nvme0n1p1 1 0 8 0 2 0 16 0 0 0 0\n"
          " 253       0 dm-0 5 0 5 0 5 0 5 0 0 0 0\n");
  auto table = make_proc_process_table(t.dir());

  ProcessRegions r;
  ASSERT_TRUE(table->regions(30, &r));
  EXPECT_EQ(r.resident_private, 680u * 1024);
  EXPECT_EQ(r.resident_shared, 320u * 1024);
  EXPECT_FALSE(table->regions(31, &r));
  EXPECT_EQ(r.resident_private, 0u);

  HostLoad load;
  ASSERT_EQ(table->host_load(&load), 0);
  EXPECT_DOUBLE_EQ(load.load_average[1], 1.25);
  // Whole disks only: partitions, loop and mapped devices would count twice.
  EXPECT_EQ((std::vector<uint64_t>{load.faults, load.page_ins, load.page_outs, load.disk_reads, load.disk_writes,
                                   load.disk_bytes_read, load.disk_bytes_written}),
            (std::vector<uint64_t>{77, 4, 5, 11, 22, 108 * 512, 216 * 512}));

  fs::remove(t.path("/vmstat"));
  EXPECT_NE(table->host_load(&load), 0);
  EXPECT_DOUBLE_EQ(load.load_average[0], 0.5);  // the readable figures still come
}

TEST(ProcProcessTableTest, RealProcShowsThisProcess) {
  auto table = make_proc_process_table();
  std::vector<ProcessFacts> list;
  ASSERT_EQ(table->list(&list, kProcessAllParts), 0);
  ASSERT_GT(list.size(), 1u);
  const ProcessFacts* self = find(list, static_cast<uint32_t>(getpid()));
  ASSERT_NE(self, nullptr);
  EXPECT_EQ((std::vector<uint32_t>{self->uid, self->ppid, self->pgid}),
            (std::vector<uint32_t>{static_cast<uint32_t>(getuid()), static_cast<uint32_t>(getppid()),
                                   static_cast<uint32_t>(getpgrp())}));
  EXPECT_EQ(self->state, ProcessState::Running);
  EXPECT_GE(self->threads, 1u);
  EXPECT_GE(self->ports, 3u);
  EXPECT_GT(self->resident_bytes, 0u);
  EXPECT_GT(self->virtual_bytes, self->resident_bytes);
  EXPECT_GT(self->virtual_private_bytes, 0u);
  EXPECT_FALSE(self->command.empty());

  // statm's figure is status's, read another way (this process may have
  // grown a little between the two listings).
  uint64_t from_status = self->virtual_private_bytes;
  ASSERT_EQ(table->list(&list, kProcessPrivateSize), 0);
  self = find(list, static_cast<uint32_t>(getpid()));
  ASSERT_NE(self, nullptr);
  EXPECT_NEAR(static_cast<double>(self->virtual_private_bytes), static_cast<double>(from_status), 1 << 20);

  ProcessRegions r;
  ASSERT_TRUE(table->regions(static_cast<uint32_t>(getpid()), &r));
  EXPECT_GT(r.resident_private + r.resident_shared, 0u);
  HostLoad load;
  EXPECT_EQ(table->host_load(&load), 0);
}

}  // namespace
}  // namespace platform
