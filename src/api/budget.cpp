// The processor budget: the files that bound a process, found as topology()
// finds them and kept open (live) to be read again with pread.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "api/api.h"
#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Forks this process has made children by, counted in each child: a
// budget kept by a parent is found anew in its child, whose /proc/self and
// control groups are its own. A counter, so that a read costs no getpid().
std::atomic<unsigned> forks{0};

void countFork() {
  forks.fetch_add(1, std::memory_order_relaxed);
}

// A file read again at every read: live, a descriptor for pread; on a saved
// machine, its path, read through the machine.
struct Kept {
  LimitFile file;
  int fd = -1;
  int period = -1;  // cgroup v1's quota: its period's
};

}  // namespace

class BudgetState {
 public:
  explicit BudgetState(std::shared_ptr<const SourceData> source)
      : source_(std::move(source)), machine_(source_->machine()) {}
  ~BudgetState() { closeAll(); }
  BudgetState(const BudgetState&) = delete;
  BudgetState& operator=(const BudgetState&) = delete;

  // Finds the files and keeps them; false with *error when the topology's
  // own lists cannot be read.
  bool find(Error* error) {
    closeAll();
    SystemRoot root(*machine_);
    std::vector<LimitFile> files;
    readCgroupLimits(root, &files);
    for (LimitFile& file : files) {
      const int fd = machine_->keep(file.path);
      const int period = file.kind == LimitFile::kCfsQuota ? machine_->keep(file.period) : -1;
      kept_.push_back({std::move(file), fd, period});
    }
    online_ = machine_->keep(kOnline);
    CpuSet online;
    SystemRoot cpus(root, "sys/devices/system/cpu");
    onlineList_ = cpus.list("online", &online) != Read::kAbsent;
    if (!onlineList_ && onlineProcessors(cpus, &online) == Read::kAbsent)
      cpus.fail("online", "cannot open: No such file or directory");
    forks_ = forks.load(std::memory_order_relaxed);
    found_ = std::chrono::steady_clock::now();
    *error = !cpus.error().empty() ? cpus.error() : root.error();
    return error->empty();
  }

  void read(Budget* b) {
    const std::lock_guard<std::mutex> hold(lock_);
    // Found anew after a failure, in a forked child, and every kRefind: a
    // move to another group, a group removed and made again, and a limit
    // file that appears later (a controller enabled afterwards) show then.
    if (stale_ || forks_ != forks.load(std::memory_order_relaxed) ||
        std::chrono::steady_clock::now() - found_ >= kRefind)
      find(&b->error);
    CpuSet affinity;
    const bool haveAffinity = SystemRoot(*machine_).affinity(&affinity);
    if (!haveAffinity && source_->kind == Source::Kind::kLive)
      b->error = {"", "the calling thread's affinity", std::strerror(errno)};
    CpuSet online;
    readOnline(&online, b);
    CgroupLimits limits;
    for (const Kept& k : kept_)
      limit(k, &limits, b);
    b->usable = usableOf(online, haveAffinity ? &affinity : nullptr, limits);
    b->cpuQuota = limits.quota;
    b->effectiveProcessors = effectiveOf(b->usable, limits.quota);
    stale_ = !b->error.empty();
  }

 private:
  const std::string kOnline = "sys/devices/system/cpu/online";

  // The online list, or on kernels without one the processors' own files.
  void readOnline(CpuSet* online, Budget* b) {
    std::string_view text;
    std::string why;
    if (!onlineList_) {
      SystemRoot cpus(SystemRoot(*machine_), "sys/devices/system/cpu");
      if (onlineProcessors(cpus, online) != Read::kOk) b->error = cpus.error();
      return;
    }
    if (!readKept(online_, kOnline, 0, &text, b) || !parseProcessorList(text, online, &why))
      fail(b, kOnline, why);
  }

  // What one kept file says, into *limits; a file that cannot be read, or
  // says what no kernel would, is the budget's error.
  void limit(const Kept& k, CgroupLimits* limits, Budget* b) {
    std::string_view text;
    std::string_view period;
    std::string why;
    if (!readKept(k.fd, k.file.path, 0, &text, b)) return;
    // A period counts only beside a quota: "-1" is none.
    if (k.file.kind == LimitFile::kCfsQuota && trimmed(text) != "-1" &&
        !readKept(k.period, k.file.period, 1, &period, b))
      return;
    if (const std::string* blamed = addLimit(k.file, text, period, limits, &why))
      fail(b, *blamed, why);
  }

  // The whole of a kept file into buffer `slot`: with pread where it is
  // open, else through the machine. False, with the budget's error, when
  // it cannot be read.
  bool readKept(int fd, const std::string& path, int slot, std::string_view* text, Budget* b) {
    if (fd < 0 && source_->kind != Source::Kind::kLive) {
      std::string why;
      if (machine_->file(path, kSmallFileCap, &spill_[slot], &why) == Read::kOk)
        return *text = spill_[slot], true;
      return fail(b, path, why.empty() ? "cannot open: No such file or directory" : why), false;
    }
    const ssize_t n = fd < 0 ? -1 : ::pread(fd, buffer_[slot], sizeof buffer_[slot], 0);
    if (n >= 0 && static_cast<std::size_t>(n) < sizeof buffer_[slot])
      return *text = std::string_view(buffer_[slot], static_cast<std::size_t>(n)), true;
    const std::string why = n < 0 ? std::strerror(errno) : "larger than the budget reads";
    return fail(b, path, "cannot read: " + why), false;
  }

  void fail(Budget* b, const std::string& path, const std::string& why) {
    if (b->error.empty()) b->error = {"", machine_->shown(path), why};
  }

  // Closes every descriptor kept (-1 is none, which close refuses).
  void closeAll() {
    for (const Kept& k : kept_) {
      ::close(k.fd);
      ::close(k.period);
    }
    ::close(online_);
    kept_.clear();
    online_ = -1;
  }

  static constexpr std::chrono::milliseconds kRefind{50};
  std::shared_ptr<const SourceData> source_;
  std::unique_ptr<Machine> machine_;
  std::mutex lock_;
  std::chrono::steady_clock::time_point found_;
  unsigned forks_ = 0;
  bool stale_ = false;
  std::vector<Kept> kept_;
  int online_ = -1;
  bool onlineList_ = true;
  std::string spill_[2];
  char buffer_[2][kSmallFileCap];
};

std::shared_ptr<BudgetState> openBudget(std::shared_ptr<const SourceData> source, Error* error) {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, countFork);
  if (source->kind == Source::Kind::kCpuinfo) {
    *error = {"", "", "a saved /proc/cpuinfo holds no control groups"};
    return nullptr;
  }
  auto state = std::make_shared<BudgetState>(std::move(source));
  if (!state->find(error)) return nullptr;
  return state;
}

void readBudget(BudgetState& state, Budget* budget) {
  state.read(budget);
}

}  // namespace detail
}  // namespace xrprocdetector
