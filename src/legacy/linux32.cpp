#include "xrprocdetector/xrprocdetector_linux32.h"

#include <unistd.h>

#include "legacy/cpuinfo_walk.h"
#include "legacy/legacy.h"
#include "legacy/word_reader.h"
#include "machine/machine.h"

using xrprocdetector::detail::machine;

namespace {

xrprocdetector::detail::CpuidRegisters queryCpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  return machine().cpuid(leaf, subleaf);
}

// The class's processor sets hold processors 0 to 1023 (128 bytes).
int queryGetAffinity(cpu_set_t* set) {
  xrprocdetector::CpuSet cpus;
  if (!machine().affinity(&cpus)) return -1;
  cpus.toCpuSetT(set, sizeof *set);  // those above 1023 left out
  return 0;
}

int querySetAffinity(const cpu_set_t* set) {
  return machine().pin(xrprocdetector::CpuSet::fromCpuSetT(set, sizeof *set)) ? 0 : -1;
}

const char* const VersionShortNames[7][3] = {
    {"5.3", nullptr, nullptr}, {"6.0", nullptr, nullptr}, {"6.1", nullptr, nullptr},
    {"7.0", nullptr, nullptr}, {"7.1", nullptr, nullptr}, {"8.0", "6.0", "4.3"},
    {"Tip", "Tip", "Tip"},
};

// The vendor string AuthenticAMD, from leaf 0's EBX, EDX, ECX. No other
// vendor is known by name: every other processor takes the Intel path.
bool isAuthenticAMD(const xrprocdetector::detail::CpuidRegisters& leaf0) {
  return leaf0.ebx == 0x68747541 && leaf0.edx == 0x69746e65 && leaf0.ecx == 0x444d4163;
}

}  // namespace

// ---------------------------------------------------------------------------
// Detection sequence

int XrProcDetectorLinux32::getProcData() {
  xrprocdetector::Strategy endedBy;
  return xrprocdetector::detail::runDefaultDetection(*this, &endedBy);
}

namespace xrprocdetector {
namespace detail {

int runDefaultDetection(XrProcDetectorLinux32& d, Strategy* endedBy) {
  // Index outside 0..6 is a caller error; it is not checked.
  const char* name = VersionShortNames[d.procInfoIndex][0];
  // Each strategy is announced, and named as the one that ended the run,
  // before it runs.
  const auto start = [&](const char* strategy, Strategy s) {
    d.tzPrint(tzDebugSteps,
              "\nProcessor Detection Algorithm %s %s\n=================================\n", name,
              strategy);
    *endedBy = s;
  };
  start("/proc/cpuinfo", Strategy::kCpuinfo);
  if (d.getUnixProcData() >= 0) return 0;
  start("cpuid", Strategy::kCpuid);
  if (d.getCPUIDProcData() >= 0) return 0;
  start("logical only", Strategy::kLogicalOnly);
  return d.XrProcDetector::platformProcInfo();
}

}  // namespace detail
}  // namespace xrprocdetector

int XrProcDetectorLinux32::platformProcInfo() {
  auto in = xrprocdetector::detail::openCpuinfo();
  tzPrint(tzDebugTrace, "XrProcDetectorLinux32::enter\n");
  const auto counts = xrprocdetector::detail::countTable(in);
  if (counts.physical == 0) {
    tzPrint(tzDebugSteps, "\nNo physical processor Ids found in /proc/cpuinfo\n");
    tzPrint(tzDebugSteps, "%i logical processors found in /proc/cpuinfo\n", counts.logical);
    return -1;
  }
  xrprocdetector::detail::storeCounts(*this, counts);
  return 0;
}

// ---------------------------------------------------------------------------
// CPUID probes

unsigned int XrProcDetectorLinux32::CpuIDSupported() {
  return queryCpuid(0, 0).eax;
}

unsigned int XrProcDetectorLinux32::LogicalProcPerPhysicalProc() {
  if (CpuIDSupported() == 0) return 1;
  const unsigned int perPackage = (queryCpuid(1, 0).ebx >> 16) & 0xFF;
  return perPackage == 0 ? 1 : perPackage;
}

unsigned int XrProcDetectorLinux32::HWD_MTSupported() {
  if (CpuIDSupported() == 0) return 0;
  return queryCpuid(1, 0).edx & 0x10000000;
}

unsigned int XrProcDetectorLinux32::GetAPIC_ID() {
  if (CpuIDSupported() == 0) return 0;
  return queryCpuid(1, 0).ebx >> 24;
}

unsigned int XrProcDetectorLinux32::IsMultiCoreCapable() {
  const unsigned int maxLeaf = CpuIDSupported();
  unsigned int zeroTest = maxLeaf;
  if (maxLeaf > 10) {
    const auto level0 = queryCpuid(11, 0);
    // The second query asks the leaf named by the first one's EAX (the SMT
    // level's shift width), not leaf 11, at sub-leaf 1. Kept as it is.
    const auto second = queryCpuid(level0.eax, 1);
    tzPrint(tzDebugSteps, "Leaf11 - numLogical: %d, numThreads: %d\n", static_cast<int>(level0.ebx),
            static_cast<int>(level0.ebx));
    const unsigned int low = level0.ebx & 0xFFFF;
    // A number divided by itself: one core per package on every processor
    // that has leaf 11. Kept as it is.
    if (low != 0) return low / low;
    zeroTest = second.ebx;
  }
  if (zeroTest == 0) return 1;
  const auto leaf0 = queryCpuid(0, 0);
  if (isAuthenticAMD(leaf0)) {
    return (queryCpuid(0x80000008, 0).ecx & 0xFF) + 1;
  }
  // The guard against a highest leaf below 4 tests the first vendor word,
  // so it never fires for a real vendor string. Kept as it is.
  if (leaf0.ebx < 4) return 1;
  return (queryCpuid(4, 0).eax >> 26) + 1;
}

unsigned int XrProcDetectorLinux32::CorePerPhysicalProc() {
  return IsMultiCoreCapable();
}

// ---------------------------------------------------------------------------
// VMware probe

bool XrProcDetectorLinux32::IsInsideVMware() {
  return xrprocdetector::detail::guardedVmwareProbe();
}

// ---------------------------------------------------------------------------
// CPUID estimate with affinity pinning

bool XrProcDetectorLinux32::setAffinityMaskToLevel4CPU(cpu_set_t* savedMask) {
  if (queryGetAffinity(savedMask) < 0) return false;  // which leaves it as it was
  const int n = bosGetLogicalProcessorCount();
  if (n < 1) {
    tzPrint(tzDebugSteps, "Maximum CPUID level reported is %i.\n",
            static_cast<int>(CpuIDSupported()));
    return false;
  }
  unsigned int level = 0;
  for (int i = 0; i < n; ++i) {
    cpu_set_t one;
    CPU_ZERO(&one);
    if (i < CPU_SETSIZE) CPU_SET(i, &one);
    // On failure the thread keeps the affinity of the last pinning.
    if (querySetAffinity(&one) < 0) return false;
    sleep(0);  // let the scheduler move the thread onto processor i
    level = CpuIDSupported();
    if (level > 3) {
      tzPrint(tzDebugSteps, "Processor found with CPUID level of 4 or higher.\n");
      tzPrint(tzDebugSteps, "Maximum CPUID level reported is %i.\n", static_cast<int>(level));
      return true;
    }
  }
  tzPrint(tzDebugSteps, "Maximum CPUID level reported is %i.\n",
          static_cast<int>(CpuIDSupported()));
  if (level == 0) return false;
  // Both outcomes agree here; the vendor test is kept as it is.
  if (isAuthenticAMD(queryCpuid(0, 0))) return false;
  return level > 3;
}

void XrProcDetectorLinux32::restoreProcessMask(cpu_set_t mask) {
  querySetAffinity(&mask);
}

int XrProcDetectorLinux32::getCPUIDProcData() {
  const unsigned int total = static_cast<unsigned int>(bosGetLogicalProcessorCount());
  cpu_set_t saved;
  CPU_ZERO(&saved);
  if (!setAffinityMaskToLevel4CPU(&saved)) return -1;

  const unsigned int perPackage = LogicalProcPerPhysicalProc();
  unsigned int physical = 1;
  if (total >= perPackage) physical = total / perPackage;
  tzPrint(tzDebugSteps, "Total Logical: %i\n", static_cast<int>(total));
  tzPrint(tzDebugSteps, "Logical per Physical: %i\n", static_cast<int>(perPackage));
  tzPrint(tzDebugSteps, "Total Physical: %i\n", static_cast<int>(physical));

  const unsigned int coresPerPackage = CorePerPhysicalProc();
  tzPrint(tzDebugSteps, "Chip is core capable.  Cores per physical = %d\n",
          static_cast<int>(coresPerPackage));
  unsigned int cores = physical * coresPerPackage;
  tzPrint(tzDebugSteps, "corecount is %d.\n", static_cast<int>(cores));

  // The saved affinity is back before the VMware probe runs.
  restoreProcessMask(saved);

  tzPrint(tzDebugSteps, "\t%d Physical CPU(s) detected\n", static_cast<int>(physical));
  tzPrint(tzDebugSteps, "\t%d Physical Core(s) detected \n", static_cast<int>(cores));
  tzPrint(tzDebugSteps, "\t%d Logical Processor(s) detected \n", static_cast<int>(total));

  static const char kCoreCorrection[] =
      " More cores than logical processors detected.  Core count changed to logical count %d.\n";
  if (IsInsideVMware()) {
    tzPrint(tzDebugSteps, "It is running on VMware\n");
    vmState = 1;
  } else if (total < cores) {
    tzPrint(tzDebugSteps, "It is running in unknown VM\n");
    vmState = 15;
  } else {
    tzPrint(tzDebugSteps, "It is not on VM ....\n");
    vmState = 0;
    hyperThreadState = HWD_MTSupported() != 0 ? 2 : 0;
    if (hyperThreadState == 2) {
      tzPrint(tzDebugSteps, "Hyper-Threaded chip detected\n");
      const unsigned int twice = 2 * cores;
      if (twice < total) {
        tzPrint(tzDebugSteps,
                "Hyper-Threading enabled, but logical count is more than 2x number of cores.\n");
        hyperThreadState = 3;
      } else if (twice == total) {
        tzPrint(tzDebugSteps, "Hyper-Threading enabled\n");
      } else {
        tzPrint(tzDebugSteps, "Hyper-Threading enabled, but %d of logical processors disabled.\n",
                static_cast<int>(twice - total));
      }
    }
  }
  // On a virtual machine the core count is at most the logical count.
  if (vmState != 0 && total < cores) {
    tzPrint(tzDebugSteps, kCoreCorrection, static_cast<int>(total));
    cores = total;
  }
  // The middle figure is the per-package core count, not the total.
  tzPrint(tzDebugSteps, " Physical Count = %d     Core Count = %d      Logical Processor = %d \n",
          static_cast<int>(physical), static_cast<int>(coresPerPackage), static_cast<int>(total));
  physicalCount = static_cast<std::int32_t>(physical);
  coreCount = static_cast<std::int32_t>(cores);
  logicalCount = static_cast<std::int32_t>(total);
  return 0;
}
