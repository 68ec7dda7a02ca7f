// Reads the process table and the host load from a proc directory.
#include "platform/linux/proc_process_table.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/file_util.h"

namespace platform {

namespace {

constexpr long kProcSuperMagic = 0x9fa0;

// Large enough for any stat or smaps_rollup line set the kernel writes; a
// file that does not fit is treated as unreadable rather than cut short.
constexpr size_t kStatBuffer = 2048;
constexpr size_t kStatusBuffer = 8192;
constexpr size_t kRollupBuffer = 4096;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// The whole of dir_fd/path in buf, or nullopt when it cannot be opened or
// read, or would not fit.
std::optional<std::string_view> read_into(int dir_fd, const char* path, char* buf, size_t capacity) {
  Descriptor fd(::openat(dir_fd, path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return std::nullopt;
  size_t length = 0;
  for (;;) {
    if (length == capacity) return std::nullopt;
    ssize_t n = ::read(fd.get(), buf + length, capacity - length);
    if (n < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    length += static_cast<size_t>(n);
    // proc files are generated whole by the first read when the buffer has
    // room, so a short read is the end; asking again to see 0 would cost a
    // system call per file, a fifth of a sample.
    if (length < capacity) break;
  }
  return std::string_view(buf, length);
}

// A process number as its directory's name.
class PidName {
 public:
  explicit PidName(uint32_t pid) {
    auto [end, ec] = std::to_chars(text_, text_ + sizeof(text_) - 1, pid);
    *end = '\0';
  }
  const char* c_str() const { return text_; }

 private:
  char text_[16];
};

// Below this many processes a listing is read on the calling thread alone:
// starting helpers would cost more than they save.
constexpr size_t kParallelThreshold = 256;
constexpr unsigned kMaxReaders = 4;

// Runs work(begin, end) over slices of [0, n), on up to kMaxReaders threads
// (the caller's among them) when n is large enough. Reading /proc is almost
// all kernel time spent under per-process locks, so a server-sized table
// reads in about 1/k of the time on k idle processors. Should a thread not
// start, the caller reads that slice itself.
template <typename Work>
void in_parallel(size_t n, const Work& work) {
  unsigned readers = std::min(kMaxReaders, std::max(1u, std::thread::hardware_concurrency()));
  if (n < kParallelThreshold || readers < 2) {
    work(0, n);
    return;
  }
  size_t slice = (n + readers - 1) / readers;
  std::vector<std::thread> helpers;
  helpers.reserve(readers - 1);
  for (size_t begin = slice; begin < n; begin += slice) {
    size_t end = std::min(n, begin + slice);
    try {
      helpers.emplace_back([&work, begin, end] { work(begin, end); });
    } catch (const std::system_error&) {
      work(begin, end);
    }
  }
  work(0, std::min(n, slice));
  for (std::thread& helper : helpers) helper.join();
}

// "PID/leaf" into a stack buffer. pid_name is at most ten digits.
class ProcPath {
 public:
  ProcPath(std::string_view pid_name, const char* leaf) {
    size_t n = pid_name.size() < kMaxName ? pid_name.size() : kMaxName;
    std::memcpy(text_, pid_name.data(), n);
    text_[n++] = '/';
    size_t leaf_length = std::strlen(leaf);
    if (leaf_length > sizeof(text_) - n - 1) leaf_length = sizeof(text_) - n - 1;
    std::memcpy(text_ + n, leaf, leaf_length);
    text_[n + leaf_length] = '\0';
  }
  const char* c_str() const { return text_; }

 private:
  static constexpr size_t kMaxName = 20;
  char text_[48];
};

template <typename Int>
bool parse_whole(std::string_view s, Int* out) {
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return ec == std::errc() && end == s.data() + s.size() && !s.empty();
}

uint64_t saturating_multiply(uint64_t a, uint64_t b) {
  uint64_t product;
  if (__builtin_mul_overflow(a, b, &product)) return std::numeric_limits<uint64_t>::max();
  return product;
}

uint64_t saturating_add(uint64_t a, uint64_t b) {
  uint64_t sum;
  if (__builtin_add_overflow(a, b, &sum)) return std::numeric_limits<uint64_t>::max();
  return sum;
}

uint32_t clamp32(uint64_t v) {
  return v > std::numeric_limits<uint32_t>::max() ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(v);
}

ProcessState state_from_letter(char letter) {
  switch (letter) {
    case 'R':
      return ProcessState::Running;
    case 'S':
      return ProcessState::Sleeping;
    case 'D':
      return ProcessState::Stuck;
    case 'T':
    case 't':
      return ProcessState::Stopped;
    case 'Z':
      return ProcessState::Zombie;
    case 'I':
      return ProcessState::Idle;
    case 'X':
    case 'x':
      return ProcessState::Halted;
    default:
      return ProcessState::Unknown;
  }
}

// Splits text at runs of spaces into at most max_fields fields; returns how
// many were found.
size_t split_spaces(std::string_view text, std::string_view* fields, size_t max_fields) {
  size_t count = 0;
  size_t i = 0;
  while (i < text.size() && count < max_fields) {
    while (i < text.size() && (text[i] == ' ' || text[i] == '\n')) ++i;
    size_t start = i;
    while (i < text.size() && text[i] != ' ' && text[i] != '\n') ++i;
    if (i > start) fields[count++] = text.substr(start, i - start);
  }
  return count;
}

// The stat fields from the state letter (the third) to rss (the 24th).
constexpr size_t kStatFields = 22;
enum StatField : size_t {
  kState = 0,
  kPpid = 1,
  kPgrp = 2,
  kMinflt = 7,
  kMajflt = 9,
  kUtime = 11,
  kStime = 12,
  kNumThreads = 17,
  kStartTime = 19,
  kVsize = 20,
  kRss = 21,
};

bool parse_stat(std::string_view text, uint32_t expected_pid, uint64_t page_size, uint64_t ticks_per_second,
                ProcessFacts* f) {
  size_t open = text.find('(');
  size_t close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return false;
  uint32_t pid = 0;
  std::string_view pid_text = text.substr(0, open);
  while (!pid_text.empty() && pid_text.back() == ' ') pid_text.remove_suffix(1);
  if (!parse_whole(pid_text, &pid) || pid != expected_pid) return false;

  std::string_view fields[kStatFields];
  if (split_spaces(text.substr(close + 1), fields, kStatFields) != kStatFields) return false;
  if (fields[kState].size() != 1) return false;

  uint32_t ppid = 0, pgrp = 0;
  uint64_t minflt = 0, majflt = 0, utime = 0, stime = 0, threads = 0, start = 0, vsize = 0;
  int64_t rss = 0;
  if (!parse_whole(fields[kPpid], &ppid) || !parse_whole(fields[kPgrp], &pgrp) ||
      !parse_whole(fields[kMinflt], &minflt) || !parse_whole(fields[kMajflt], &majflt) ||
      !parse_whole(fields[kUtime], &utime) || !parse_whole(fields[kStime], &stime) ||
      !parse_whole(fields[kNumThreads], &threads) || !parse_whole(fields[kStartTime], &start) ||
      !parse_whole(fields[kVsize], &vsize) || !parse_whole(fields[kRss], &rss))
    return false;

  f->pid = pid;
  f->command.assign(text.substr(open + 1, close - open - 1));
  f->state = state_from_letter(fields[kState][0]);
  f->ppid = ppid;
  f->pgid = pgrp;
  f->faults = minflt;
  f->page_ins = majflt;
  uint64_t ticks = saturating_add(utime, stime);
  f->cpu_microseconds = saturating_add(saturating_multiply(ticks / ticks_per_second, 1000000),
                                       (ticks % ticks_per_second) * 1000000 / ticks_per_second);
  f->threads = clamp32(threads);
  f->start_time = start;
  f->virtual_bytes = vsize;
  f->resident_bytes = rss > 0 ? saturating_multiply(static_cast<uint64_t>(rss), page_size) : 0;
  return true;
}

// The first number after "\nKey:" in a status-like text.
std::optional<uint64_t> status_number(std::string_view text, std::string_view key) {
  size_t at = 0;
  for (;;) {
    at = text.find(key, at);
    if (at == std::string_view::npos) return std::nullopt;
    if (at == 0 || text[at - 1] == '\n') break;
    at += key.size();
  }
  size_t i = at + key.size();
  while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
  size_t start = i;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
  uint64_t value = 0;
  if (!parse_whole(text.substr(start, i - start), &value)) return std::nullopt;
  return value;
}

// statm's sixth figure is data plus stack pages, the same sum as status's
// VmData + VmStk, for a third of the kernel's work.
bool parse_statm(std::string_view text, uint64_t page_size, ProcessFacts* f) {
  std::string_view fields[6];
  uint64_t pages = 0;
  if (split_spaces(text, fields, 6) != 6 || !parse_whole(fields[5], &pages)) return false;
  f->virtual_private_bytes = saturating_multiply(pages, page_size);
  return true;
}

bool parse_status(std::string_view text, ProcessFacts* f) {
  std::optional<uint64_t> uid = status_number(text, "Uid:");
  if (!uid || *uid > std::numeric_limits<uint32_t>::max()) return false;
  f->uid = static_cast<uint32_t>(*uid);
  // Kernel threads have no address space and so no Vm lines.
  uint64_t data_kb = status_number(text, "VmData:").value_or(0);
  uint64_t stack_kb = status_number(text, "VmStk:").value_or(0);
  f->virtual_private_bytes = saturating_multiply(saturating_add(data_kb, stack_kb), 1024);
  return true;
}

class ProcProcessTable : public ProcessTable {
 public:
  explicit ProcProcessTable(std::string proc_dir) : proc_dir_(std::move(proc_dir)) {
    long page = ::sysconf(_SC_PAGESIZE);
    long ticks = ::sysconf(_SC_CLK_TCK);
    page_size_ = page > 0 ? static_cast<uint64_t>(page) : 4096;
    ticks_per_second_ = ticks > 0 ? static_cast<uint64_t>(ticks) : 100;
    struct statfs fs;
    on_procfs_ = ::statfs(proc_dir_.c_str(), &fs) == 0 && fs.f_type == kProcSuperMagic;
    proc_fd_ = ::open(proc_dir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  }
  ~ProcProcessTable() override {
    if (proc_fd_ >= 0) ::close(proc_fd_);
  }

  int list(std::vector<ProcessFacts>* out, uint32_t parts) override {
    out->clear();
    DIR* dir = ::opendir(proc_dir_.c_str());
    if (!dir) return errno ? errno : EIO;
    int dir_fd = ::dirfd(dir);
    std::vector<uint32_t> pids;
    while (struct dirent* entry = ::readdir(dir)) {
      std::string_view name(entry->d_name);
      uint32_t pid = 0;
      if (name.empty() || name[0] < '1' || name[0] > '9' || !parse_whole(name, &pid)) continue;
      pids.push_back(pid);
    }
    out->resize(pids.size());
    std::vector<uint8_t> whole(pids.size(), 0);
    in_parallel(pids.size(), [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) {
        PidName name(pids[i]);
        whole[i] = read_process(dir_fd, name.c_str(), pids[i], parts, &(*out)[i]);
      }
    });
    ::closedir(dir);
    size_t kept = 0;
    for (size_t i = 0; i < whole.size(); ++i)
      if (whole[i]) {
        if (kept != i) (*out)[kept] = std::move((*out)[i]);
        ++kept;
      }
    out->resize(kept);
    return 0;
  }

  void regions_of(const std::vector<uint32_t>& pids, std::vector<ProcessRegions>* out) override {
    out->assign(pids.size(), ProcessRegions{});
    in_parallel(pids.size(), [&](size_t begin, size_t end) {
      for (size_t i = begin; i < end; ++i) regions(pids[i], &(*out)[i]);
    });
  }

  bool regions(uint32_t pid, ProcessRegions* out) override {
    *out = ProcessRegions{};
    char name[16];
    auto [end, ec] = std::to_chars(name, name + sizeof(name), pid);
    // The directory opened at construction spares two system calls per
    // process; a table made before its directory existed opens it here.
    Descriptor opened(proc_fd_ < 0 ? ::open(proc_dir_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC) : -1);
    int dir_fd = proc_fd_ >= 0 ? proc_fd_ : opened.get();
    if (dir_fd < 0) return false;
    char buf[kRollupBuffer];
    std::optional<std::string_view> text =
        read_into(dir_fd, ProcPath(std::string_view(name, end - name), "smaps_rollup").c_str(), buf, sizeof(buf));
    if (!text) return false;
    uint64_t private_kb = saturating_add(status_number(*text, "Private_Clean:").value_or(0),
                                         status_number(*text, "Private_Dirty:").value_or(0));
    uint64_t shared_kb = saturating_add(status_number(*text, "Shared_Clean:").value_or(0),
                                        status_number(*text, "Shared_Dirty:").value_or(0));
    out->resident_private = saturating_multiply(private_kb, 1024);
    out->resident_shared = saturating_multiply(shared_kb, 1024);
    return true;
  }

  int host_load(HostLoad* out) override {
    *out = HostLoad{};
    int first_error = 0;
    auto note = [&first_error](int error) {
      if (!first_error) first_error = error;
    };
    if (std::optional<std::string> text = read_file(proc_dir_ + "/loadavg")) {
      std::string_view fields[3];
      if (split_spaces(*text, fields, 3) == 3) {
        for (int i = 0; i < 3; ++i)
          std::from_chars(fields[i].data(), fields[i].data() + fields[i].size(), out->load_average[i]);
      } else {
        note(EINVAL);
      }
    } else {
      note(errno ? errno : EIO);
    }
    if (std::optional<std::string> text = read_file(proc_dir_ + "/vmstat")) {
      out->faults = status_number(*text, "pgfault ").value_or(0);
      out->page_ins = status_number(*text, "pswpin ").value_or(0);
      out->page_outs = status_number(*text, "pswpout ").value_or(0);
    } else {
      note(errno ? errno : EIO);
    }
    if (std::optional<std::string> text = read_file(proc_dir_ + "/diskstats"))
      add_disk_traffic(*text, out);
    else
      note(errno ? errno : EIO);
    return first_error;
  }

 private:
  // Several files are read through one descriptor of the process's
  // directory: should the process exit and its number be reused meanwhile,
  // the reads fail instead of mixing two processes, and each open looks up
  // one name. The stat line alone needs no such care, and is opened by path.
  bool read_process(int dir_fd, const char* name, uint32_t pid, uint32_t parts, ProcessFacts* f) {
    *f = ProcessFacts{};
    char buf[kStatusBuffer];
    if (parts == kProcessStatOnly) {
      std::optional<std::string_view> stat = read_into(dir_fd, ProcPath(name, "stat").c_str(), buf, kStatBuffer);
      return stat && parse_stat(*stat, pid, page_size_, ticks_per_second_, f);
    }
    Descriptor process(::openat(dir_fd, name, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (process.get() < 0) return false;
    std::optional<std::string_view> stat = read_into(process.get(), "stat", buf, kStatBuffer);
    if (!stat || !parse_stat(*stat, pid, page_size_, ticks_per_second_, f)) return false;
    if (parts & kProcessOwner) {
      std::optional<std::string_view> status = read_into(process.get(), "status", buf, sizeof(buf));
      if (!status || !parse_status(*status, f)) return false;
    } else if (parts & kProcessPrivateSize) {
      std::optional<std::string_view> statm = read_into(process.get(), "statm", buf, kStatBuffer);
      if (!statm || !parse_statm(*statm, page_size_, f)) return false;
    }
    if (parts & kProcessDescriptors) f->ports = count_descriptors(process.get());
    return true;
  }

  uint32_t count_descriptors(int process_fd) const {
    // procfs reports the number of open descriptors as the directory's size,
    // which spares listing it; older kernels report 0 and are counted.
    struct stat st;
    if (on_procfs_ && ::fstatat(process_fd, "fd", &st, 0) == 0 && st.st_size > 0)
      return clamp32(static_cast<uint64_t>(st.st_size));
    Descriptor fd(::openat(process_fd, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.get() < 0) return 0;
    DIR* dir = ::fdopendir(fd.get());
    if (!dir) return 0;
    fd.release();
    uint64_t count = 0;
    while (struct dirent* entry = ::readdir(dir))
      if (entry->d_name[0] != '.') ++count;
    ::closedir(dir);
    return clamp32(count);
  }

  static bool stacked_or_virtual(std::string_view name) {
    for (std::string_view prefix : {"loop", "ram", "zram", "dm-", "md"})
      if (name.substr(0, prefix.size()) == prefix) return true;
    return false;
  }

  // A partition's name is its disk's name followed by digits, or by "p"
  // and digits when the disk's name ends in a digit (nvme0n1p1, mmcblk0p2).
  static bool is_partition_of(std::string_view name, std::string_view disk) {
    if (name.size() <= disk.size() || name.substr(0, disk.size()) != disk) return false;
    std::string_view rest = name.substr(disk.size());
    if (rest[0] == 'p' && rest.size() > 1) rest.remove_prefix(1);
    for (char c : rest)
      if (c < '0' || c > '9') return false;
    return true;
  }

  static void add_disk_traffic(std::string_view text, HostLoad* out) {
    std::vector<std::string_view> disks;
    while (!text.empty()) {
      size_t nl = text.find('\n');
      std::string_view line = text.substr(0, nl);
      text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
      // major minor name reads merged sectors ms writes merged sectors ...
      std::string_view fields[10];
      if (split_spaces(line, fields, 10) < 10) continue;
      std::string_view name = fields[2];
      if (stacked_or_virtual(name)) continue;
      bool partition = false;
      for (std::string_view disk : disks)
        if (is_partition_of(name, disk)) partition = true;
      if (partition) continue;
      disks.push_back(name);
      uint64_t reads = 0, sectors_read = 0, writes = 0, sectors_written = 0;
      parse_whole(fields[3], &reads);
      parse_whole(fields[5], &sectors_read);
      parse_whole(fields[7], &writes);
      parse_whole(fields[9], &sectors_written);
      // diskstats counts 512-byte sectors whatever the device's own size.
      out->disk_reads = saturating_add(out->disk_reads, reads);
      out->disk_writes = saturating_add(out->disk_writes, writes);
      out->disk_bytes_read = saturating_add(out->disk_bytes_read, saturating_multiply(sectors_read, 512));
      out->disk_bytes_written = saturating_add(out->disk_bytes_written, saturating_multiply(sectors_written, 512));
    }
  }

  const std::string proc_dir_;
  int proc_fd_ = -1;
  uint64_t page_size_ = 4096;
  uint64_t ticks_per_second_ = 100;
  bool on_procfs_ = false;
};

}  // namespace

std::unique_ptr<ProcessTable> make_proc_process_table(std::string proc_dir) {
  return std::make_unique<ProcProcessTable>(std::move(proc_dir));
}

}  // namespace platform
