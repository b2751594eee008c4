// The platform's default detector, the one getOSProcDetector() returns. It
// tries three strategies and stops at the first that succeeds:
//   1. /proc/cpuinfo: distinct processor numbers, distinct physical ids, and
//      per package the cpu-cores value of its first processor, summed. Fails
//      when the file names no physical id.
//   2. CPUID: pins the calling thread to the first processor whose highest
//      CPUID leaf is 4 or more, asks it for logical processors and cores per
//      package, derives the counts from the configured processor count,
//      restores the thread's affinity, and probes for VMware.
//   3. The configured processor count for all three counts.
//
// Side effects a host must know of:
//   - The calling thread's processor affinity changes during strategy 2; it
//     is restored before getProcData() returns when the strategy succeeds,
//     and left as the last pinning set it when the search fails.
//   - The VMware probe installs a SIGSEGV handler for the span of one port
//     access and then sets SIGSEGV to its default disposition, whatever
//     handler the host had; after a probe that faulted, SIGSEGV stays blocked
//     in the calling thread.
//   - If /proc/cpuinfo cannot be read, getProcData() never returns.
// So run one detection at a time in a process. A host that wants none of
// this calls xrprocdetector::detect() (detect.h), which runs this class and
// gives the thread back its affinity, signal mask and SIGSEGV disposition.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_H
#define XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_H

#include <sched.h>

#include <xrprocdetector/xrprocdetector.h>

class XRPROCDETECTOR_API XrProcDetectorLinux32 : public XrProcDetector {
 public:
  using XrProcDetector::XrProcDetector;

  // The three strategies, each announced by a banner naming the version's
  // short name; always 0.
  int getProcData() override;
  // Strategy 1: the /proc/cpuinfo scan; -1 when no physical id was found.
  int platformProcInfo() override;

  // Strategy 2: 0 on success, -1 when no suitable processor could be pinned.
  int getCPUIDProcData();
  // Saves the thread's affinity into *savedMask and pins the thread to the
  // first processor reporting a highest CPUID leaf of 4 or more.
  bool setAffinityMaskToLevel4CPU(cpu_set_t* savedMask);
  // Applies `mask` to the calling thread; failures are ignored.
  void restoreProcessMask(cpu_set_t mask);

  // CPUID probes of the processor the thread runs on now.
  // The highest standard leaf (leaf 0 EAX), not a yes/no.
  unsigned int CpuIDSupported();
  // Leaf 1 EBX[23:16], at least 1.
  unsigned int LogicalProcPerPhysicalProc();
  // Leaf 1 EDX bit 28 as a mask: 0 or 0x10000000.
  unsigned int HWD_MTSupported();
  // Leaf 1 EBX[31:24], the initial APIC ID.
  unsigned int GetAPIC_ID();
  // Cores per package, at least 1 (one on every processor with leaf 11).
  unsigned int IsMultiCoreCapable();
  // IsMultiCoreCapable() unchanged.
  unsigned int CorePerPhysicalProc();

  // True when the VMware backdoor port answers with its magic. Faults are
  // caught (SIGSEGV handler plus a non-local jump) and read as false.
  bool IsInsideVMware();
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_LINUX32_H
