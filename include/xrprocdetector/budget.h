/// \file
/// The processors this process may use, kept current at the cost of a few
/// system calls: for long-running hosts that size their thread pools as the
/// machine changes under them.
///
/// \code
/// #include <xrprocdetector/budget.h>
/// using namespace xrprocdetector;
/// std::optional<ProcessorBudget> budget = ProcessorBudget::open();
/// Budget now = budget ? budget->read() : Budget{};
/// resizePool(now.effectiveProcessors);  // read() again whenever it suits the host
/// \endcode
#ifndef XRPROCDETECTOR_BUDGET_H
#define XRPROCDETECTOR_BUDGET_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <xrprocdetector/c_api.h>
#include <xrprocdetector/cpuset.h>
#include <xrprocdetector/error.h>
#include <xrprocdetector/snapshot.h>

namespace xrprocdetector {

/// What this process may use now, by the same rule as topology(): its
/// usable processors, CPU quota and effective processors, as Topology
/// describes them.
struct Budget {
  CpuSet usable;
  std::optional<double> cpuQuota;
  std::int32_t effectiveProcessors = 1;
  /// The first file that could not be read, named ("/sys/fs/cgroup/a/
  /// cpu.max: cannot read: No such device" once the group is removed);
  /// empty when every file could be read. The other fields hold what could.
  Error error;
};

/// Whether two budgets differ in any field.
inline bool changed(const Budget& before, const Budget& after) noexcept {
  return before.usable != after.usable || before.cpuQuota != after.cpuQuota ||
         before.effectiveProcessors != after.effectiveProcessors ||
         before.error.message() != after.error.message();
}

/// The processors this process may use, kept current: a container's CPU
/// limit resized in place, a cpuset narrowed, processors taken offline, the
/// affinity narrowed, the process moved to another group or forked.
///
/// open() finds the process's control groups and the files that bound it
/// (the quota and period of every ancestor visible, the effective cpuset,
/// the online list), as topology() finds them, and keeps them open. read()
/// reads again only what can change, with pread on those descriptors, and
/// the calling thread's affinity; it allocates nothing (but the message of
/// a file that cannot be read). The files are found anew by the first
/// read() in a forked child, by the read after one that could not read a
/// file, and by the first read() at least 50 ms after they were last found,
/// so a move to another group and a limit file that appears later (a
/// controller enabled afterwards) show within 50 ms. Copies share what is
/// kept; read() may be called from several threads at once.
class ProcessorBudget {
 public:
  /// The budget of `source`: this process on this machine, or on a
  /// snapshot or system root the process it recorded (its files read as
  /// they were saved). Nothing, with *error saying why, when the files
  /// cannot be found or opened.
  static std::optional<ProcessorBudget> open(const Source& source = Source::live(),
                                             Error* error = nullptr) {
    char* why = nullptr;
    // A text or file whose handle could not be made is no live machine.
    const bool lost = source.kind() != Source::Kind::kLive && source.handle() == nullptr;
    xrpd_budget* b = lost ? nullptr : xrpd_budget_open_source(source.handle(), &why);
    if (b != nullptr) return ProcessorBudget(b);
    if (error != nullptr) *error = lost ? source.error() : bridge::errorOf(why);
    xrpd_free(why);
    return std::nullopt;
  }
  /// This process's budget, with the error's message into *error.
  static std::optional<ProcessorBudget> open(std::string* error) {
    Error e;
    std::optional<ProcessorBudget> b = open(Source::live(), &e);
    if (!b && error != nullptr) *error = e.message();
    return b;
  }

  Budget read() noexcept {
    xrpd_budget_reading r{};
    r.size = sizeof r;
    Budget b;
    if (xrpd_budget_read(handle_.get(), &r) != 0) return b;
    b.usable = CpuSet::fromC(r.usable);
    if (r.cpu_quota > 0) b.cpuQuota = r.cpu_quota;
    b.effectiveProcessors = r.effective_processors;
    b.error = bridge::takeError(r.error);
    return b;
  }

  /// The C interface's handle.
  xrpd_budget* handle() const noexcept { return handle_.get(); }

 private:
  explicit ProcessorBudget(xrpd_budget* budget) : handle_(budget, xrpd_budget_close) {}
  std::shared_ptr<xrpd_budget> handle_;
};

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_BUDGET_H
