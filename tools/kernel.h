// The kernel's own topology of a machine, read from /sys/devices/system/cpu
// (live, or under a snapshot's or a system root's directory), and how a
// generation's row compares with it.
#ifndef XRPROCDETECTOR_TOOLS_KERNEL_H
#define XRPROCDETECTOR_TOOLS_KERNEL_H

#include <cstdint>
#include <optional>
#include <string>

#include "run.h"

namespace xrprocdetect {

enum class Smt { kOn, kOff, kNotSupported };
enum class Vm { kVmware, kOther, kNone };

// What the kernel says; an empty field is one the tree does not tell.
struct KernelTopology {
  std::optional<std::int32_t> packages;
  std::optional<std::int32_t> cores;
  std::optional<std::int32_t> logical;
  std::optional<Smt> smt;
  std::optional<Vm> vm;
  std::string missing;  // what the counts lacked, for "not available"
};

// Reads the topology under `root` ("/" for this machine). `cpuinfo` is the
// /proc/cpuinfo text of the same machine, or null; only its first flags
// line is looked at.
KernelTopology readKernelTopology(const std::string& root, const std::string* cpuinfo);

// Whether a field agrees: kUnknown where the kernel or the row has no value
// (a row that was not counted has none).
enum class Same : std::uint8_t { kUnknown, kYes, kNo };

struct Agreement {
  Same packages = Same::kUnknown;
  Same cores = Same::kUnknown;
  Same logical = Same::kUnknown;
  Same smt = Same::kUnknown;
  Same vm = Same::kUnknown;
  // Whether packages, cores or logical processors differ (what --check asks).
  bool countsDiffer() const {
    return packages == Same::kNo || cores == Same::kNo || logical == Same::kNo;
  }
};

Agreement compareWithKernel(const Row& row, const KernelTopology& kernel);

// The generation's hyperThreadState and vmState in the kernel's terms.
std::optional<Smt> smtOf(const Row& row);
std::optional<Vm> vmOf(const Row& row);

// "on", "off", "notsupported"; "vmware", "other", "none": the JSON words.
const char* smtKey(Smt smt);
const char* vmKey(Vm vm);

}  // namespace xrprocdetect

#endif  // XRPROCDETECTOR_TOOLS_KERNEL_H
