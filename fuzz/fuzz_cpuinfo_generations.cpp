// Every /proc/cpuinfo generation over arbitrary bytes, with its debug output
// at level 2 into /dev/null so that every message is formatted too. Besides
// the sanitizers, the counts are held to a simple model: 6.0 and 6.1 count 1
// to 256 of everything (the 6.x frame raises zeros to 1), 7.0 1 to 256
// packages, and 6.1, 7.0 and the default detector's scan count alike, as
// they fill the same tables from the same words.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/cpuinfo_machine.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static FILE* const out = std::fopen("/dev/null", "w");
  const testsupport::CpuinfoMachine redirect(
      testsupport::CpuinfoMachine::kText, std::string(reinterpret_cast<const char*>(data), size));
  XrProcDetectorLegacy_6x v60(tzDebugTrace, 0, tzProcInfo60, out, nullptr);
  XrProcDetectorLegacy_6x v61(tzDebugTrace, 0, tzProcInfo61, out, nullptr);
  XrProcDetectorLinux32_70 v70(tzDebugTrace, 0, out, nullptr);
  XrProcDetectorLinux32 platform(tzDebugTrace, 0, out, nullptr);
  bool ok = v60.getProcData() == 0 && v61.getProcData() == 0 && v70.getProcData() == 0;
  for (int count : {v60.logicalCount, v60.physicalCount, v60.coreCount, v61.logicalCount,
                    v61.physicalCount, v70.physicalCount})
    ok = ok && count >= 1 && count <= 256;
  ok = ok && v70.logicalCount >= 0 &&
       v61.logicalCount == (v70.logicalCount == 0 ? 1 : v70.logicalCount) &&
       v61.physicalCount == v70.physicalCount &&
       v61.coreCount == (v70.coreCount == 0 ? 1 : v70.coreCount);
  if (platform.platformProcInfo() == 0) {
    ok = ok && platform.logicalCount == v70.logicalCount &&
         platform.physicalCount == v70.physicalCount && platform.coreCount == v70.coreCount;
  } else {  // no package: the default scan fails and leaves its counts alone
    ok = ok && v70.physicalCount == 1 && v70.coreCount == 0 && platform.logicalCount == 65535;
  }
  v61.printSummary();
  if (!ok) std::fputs("the counts break the model\n", stderr), std::abort();
  return 0;
}
