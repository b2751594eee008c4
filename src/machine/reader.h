// The typed reader of a machine's files, and the one shape of a failure.
#ifndef XRPROCDETECTOR_SRC_MACHINE_READER_H
#define XRPROCDETECTOR_SRC_MACHINE_READER_H

#include <climits>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <xrprocdetector/error.h>

#include "machine/parsers.h"
#include "machine/paths.h"

namespace xrprocdetector {
namespace detail {

// What went wrong, the one shape of every failure: the step that failed
// where the reason alone does not say it ("cannot create"), the file to
// blame as a message names it (empty where no one file is), and why.
using Error = xrprocdetector::Error;
// Sets *error and returns false: the end of a step that failed.
bool fail(Error* error, std::string file, std::string why, std::string what = "");

class Machine;

struct CpuidRegisters {
  std::uint32_t eax;
  std::uint32_t ebx;
  std::uint32_t ecx;
  std::uint32_t edx;
};

// The typed reader of a machine's files: texts, numbers, processor lists
// and masks, each failure recorded against its file.
class SystemRoot {
 public:
  explicit SystemRoot(Machine& machine) : machine_(machine) {}
  // The folder `path` of `parent`: paths are relative to it, and named and
  // resolved as the parent's, so a link in them stays inside the whole tree.
  SystemRoot(const SystemRoot& parent, const std::string& path)
      : machine_(parent.machine_), base_(parent.base_ + path + "/") {}

  // The machine it reads, for what neither this handle nor a failure of
  // the tree is about.
  Machine& machine() const { return machine_; }
  // `path` as a message names it.
  std::string shown(const std::string& path) const;
  // The names in the folder `path`; no failure is recorded.
  Read entries(const std::string& path, std::vector<std::string>* names);
  // The calling thread's affinity on this machine (a saved machine's, as
  // saved); false where it cannot be read or was not saved.
  bool affinity(CpuSet* set);
  // CPUID on the processor the thread runs on; nothing where a saved
  // machine holds no answer.
  std::optional<CpuidRegisters> cpuid(std::uint32_t leaf, std::uint32_t subleaf);
  // CPUID on processor `cpu`: the thread pinned there and given back its
  // affinity. Nothing when it cannot be pinned there or no answer is held.
  std::optional<CpuidRegisters> cpuidOn(unsigned cpu, std::uint32_t leaf, std::uint32_t subleaf);
  // A file within its cap (capOf), without its trailing white space. A
  // failure is recorded (the first one is kept, naming the file) as well as
  // returned.
  Read text(const std::string& path, std::string* out);
  // A whole number from `min` to `max`; any other text is a failure.
  Read number(const std::string& path, long* value, long min = LONG_MIN, long max = LONG_MAX);
  // A processor list, or with `mask` a CPU mask.
  Read list(const std::string& path, CpuSet* out, bool mask = false);
  // The first failure met, naming its file; empty when there was none.
  const Error& error() const { return error_; }
  // The numbers N of the processor folders cpuN in the folder `path`, in
  // increasing order; none when it cannot be listed. A folder cpuN whose N
  // is not canonical or not below the kernel's limit is a failure.
  std::vector<unsigned> processorFolders(const std::string& path);
  // Records a failure of the file at `path` ("line 1: ..." or a reason).
  Read fail(const std::string& path, const std::string& why);

 private:
  Machine& machine_;
  std::string base_;  // the folder under the root, "" or ending in '/'
  Error error_;
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_READER_H
