// The parts of the kernel row, each in a file of its own.
#ifndef XRPROCDETECTOR_SRC_KERNEL_KERNEL_H
#define XRPROCDETECTOR_SRC_KERNEL_KERNEL_H

#include <xrprocdetector/detect.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "snapshot/snapshot.h"
#include "sysroot/root.h"

namespace xrprocdetector {
namespace detail {

// The virtual machine, from the DMI strings, /sys/hypervisor/type, the PCI
// devices' vendors and the first flags line of `cpuinfo` (or null).
std::optional<Hypervisor> hypervisorState(SystemRoot& root, const std::string* cpuinfo);

// The cores by kind, fastest first; `cores` holds each core's online
// processors. Empty when all are of one kind or nothing tells.
std::vector<CoreKind> coreKinds(SystemRoot& root, const std::vector<std::vector<unsigned>>& cores,
                                const std::map<unsigned, std::vector<XrCpuidLine>>* cpuid);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_KERNEL_KERNEL_H
