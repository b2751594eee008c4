// ProcessorBudget: the files that bound this process, found once and kept
// open, read again with pread.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "kernel/kernel.h"

namespace xrprocdetector {

namespace {

// A kept descriptor, closed with its owner.
struct Kept {
  detail::LimitFile file;
  int fd = -1;
  int period = -1;  // cgroup v1's quota: its period's
};

int openLive(const std::string& path) {
  return ::open(("/" + path).c_str(), O_RDONLY | O_CLOEXEC);
}

}  // namespace

class ProcessorBudget::State {
 public:
  ~State() { closeAll(); }

  // Finds the files and opens them; false with *error when it cannot.
  bool find(std::string* error) {
    closeAll();
    detail::SystemRoot root(live_);
    std::vector<detail::LimitFile> files;
    detail::readCgroupLimits(root, &files);
    for (detail::LimitFile& file : files) {
      const int fd = openLive(file.path);
      const int period = file.kind == detail::LimitFile::kCfsQuota ? openLive(file.period) : -1;
      kept_.push_back({std::move(file), fd, period});
    }
    online_ = openLive("sys/devices/system/cpu/online");
    cgroup_ = openLive("proc/self/cgroup");
    std::string_view text;
    const bool known = readKept(cgroup_, &text);
    cgroupText_ = known ? std::string(text) : "";
    const char* lacking = online_ < 0 ? "/sys/devices/system/cpu/online"
                          : known     ? nullptr
                                      : "/proc/self/cgroup";
    if (lacking != nullptr)
      *error = std::string(lacking) + ": cannot read: " + std::strerror(errno);
    if (!root.error().empty()) *error = root.error().text();
    return root.error().empty() && lacking == nullptr;
  }

  void read(Budget* b) {
    const std::lock_guard<std::mutex> hold(lock_);
    std::string_view text;
    std::string why;
    // A process moved to another control group is bounded by other files.
    // Reading where it is costs about as much as the rest of a read, so it
    // is looked at once in kMoveCheck.
    const auto now = std::chrono::steady_clock::now();
    if (now - checked_ >= kMoveCheck) {
      checked_ = now;
      if (!readKept(cgroup_, &text) || text != cgroupText_) find(&b->error);
    }
    CpuSet affinity;
    if (!live_.affinity(&affinity)) fail(b, "the calling thread's affinity", std::strerror(errno));
    CpuSet online;
    if (!readKept(online_, &text) || !detail::parseProcessorList(text, &online, &why))
      fail(b, "/sys/devices/system/cpu/online", why);
    detail::CgroupLimits limits;
    for (const Kept& k : kept_)
      limit(k, &limits, b);
    b->usable = affinity & online;
    if (limits.cpuset) b->usable = b->usable & *limits.cpuset;
    b->cpuQuota = limits.quota;
    b->effectiveProcessors = detail::effectiveOf(b->usable, limits.quota);
  }

 private:
  // What one kept file says, into *limits; a file that cannot be read, or
  // says what no kernel would, is the budget's error.
  void limit(const Kept& k, detail::CgroupLimits* limits, Budget* b) {
    std::string_view text;
    std::string_view period;
    std::string why;
    bool periodWrong = false;
    if (!readKept(k.fd, &text)) return fail(b, "/" + k.file.path, why);
    // A period counts only beside a quota: "-1" is none.
    if (k.period >= 0 && detail::trimmed(text) != "-1" && !readKept(k.period, &period, true))
      return fail(b, "/" + k.file.period, why);
    if (!detail::addLimit(k.file, text, period, limits, &why, &periodWrong))
      fail(b, "/" + (periodWrong ? k.file.period : k.file.path), why);
  }

  // The whole of a kept file, into the buffer (a period into its own);
  // false with errno set.
  bool readKept(int fd, std::string_view* text, bool period = false) {
    char* const into = period ? period_ : buffer_;
    const std::size_t size = period ? sizeof period_ : sizeof buffer_;
    const ssize_t n = fd < 0 ? -1 : ::pread(fd, into, size, 0);
    if (n < 0 || static_cast<std::size_t>(n) == size) return false;
    *text = std::string_view(into, static_cast<std::size_t>(n));
    return true;
  }

  static void fail(Budget* b, const std::string& file, const std::string& why) {
    if (b->error.empty())
      b->error =
          file + ": " + (why.empty() ? "cannot read: " + std::string(std::strerror(errno)) : why);
  }

  // Closes every descriptor kept (-1 is none, which close refuses).
  void closeAll() {
    for (const Kept& k : kept_) {
      ::close(k.fd);
      ::close(k.period);
    }
    ::close(online_);
    ::close(cgroup_);
    kept_.clear();
    online_ = cgroup_ = -1;
  }

  static constexpr std::chrono::milliseconds kMoveCheck{50};
  std::mutex lock_;
  std::chrono::steady_clock::time_point checked_;
  detail::LiveMachine live_;
  std::vector<Kept> kept_;
  int online_ = -1;
  int cgroup_ = -1;
  std::string cgroupText_;
  char buffer_[detail::kSmallFileCap];
  char period_[64];
};

ProcessorBudget::ProcessorBudget(std::shared_ptr<State> state) : state_(std::move(state)) {}

std::optional<ProcessorBudget> ProcessorBudget::open(std::string* error) {
  std::string why;
  try {
    auto state = std::make_shared<State>();
    if (state->find(&why)) return ProcessorBudget(std::move(state));
  } catch (const std::bad_alloc&) {
    why = "out of memory";
  }
  if (error != nullptr) *error = why;
  return std::nullopt;
}

Budget ProcessorBudget::read() noexcept {
  Budget b;
  try {
    state_->read(&b);
  } catch (const std::bad_alloc&) {
    b.error = "out of memory";
  }
  return b;
}

bool changed(const Budget& before, const Budget& after) noexcept {
  return before.usable != after.usable || before.cpuQuota != after.cpuQuota ||
         before.effectiveProcessors != after.effectiveProcessors || before.error != after.error;
}

}  // namespace xrprocdetector
