// Every /proc/cpuinfo generation's counting over arbitrary bytes: 6.0 and
// 6.1 through XrProcDetectorLegacy_6x, 7.0 through getProcData, the default
// detector through its /proc/cpuinfo scan alone (its getProcData would go on
// to CPUID). Debug output goes to /dev/null at level 2, so that every message
// is formatted too. Besides the sanitizers, the counts are held to what the
// tables allow and to what the generations share. The input's first byte
// picks the vector search for trigger words.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "xrprocdetector/internal/word_reader.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

FILE* devNull() {
  static FILE* const out = std::fopen("/dev/null", "w");
  return out;
}

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "broken: %s\n", what);
  std::abort();
}

bool within(std::int32_t v, std::int32_t low, std::int32_t high) {
  return v >= low && v <= high;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Each vector search for trigger words, as far as the processor has them.
  xrprocdetector::detail::limitSearchForTesting(size == 0 ? 2 : data[0] % 3);
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText,
                                   std::string(reinterpret_cast<const char*>(data), size));
  FILE* out = devNull();
  if (out == nullptr) return 0;

  XrProcDetectorLegacy_6x v60(tzDebugTrace, 0, tzProcInfo60, out, nullptr);
  require(v60.getProcData() == 0, "6.0 getProcData is 0");
  v60.printSummary();
  XrProcDetectorLegacy_6x v61(tzDebugTrace, 0, tzProcInfo61, out, nullptr);
  require(v61.getProcData() == 0, "6.1 getProcData is 0");
  v61.printSummary();
  XrProcDetectorLinux32_70 v70(tzDebugTrace, 0, tzProcInfo70, out, nullptr);
  require(v70.getProcData() == 0, "7.0 getProcData is 0");
  v70.printSummary();
  XrProcDetectorLinux32 platform(tzDebugTrace, 0, tzProcInfo71, out, nullptr);
  const int scanned = platform.platformProcInfo();

  // 6.0 counts distinct texts, at most 256 of each kind, zeros raised to 1.
  require(within(v60.logicalCount, 1, 256), "6.0 logical count in 1..256");
  require(within(v60.physicalCount, 1, 256), "6.0 physical count in 1..256");
  require(within(v60.coreCount, 1, 256), "6.0 core count in 1..256");

  // 6.1, 7.0 and the default scan fill the same tables from the same walk.
  require(within(v70.logicalCount, 0, 256), "7.0 logical count in 0..256");
  require(within(v70.physicalCount, 1, 256), "7.0 physical count in 1..256");
  require(v61.logicalCount == (v70.logicalCount == 0 ? 1 : v70.logicalCount),
          "6.1 and 7.0 count the same processors");
  require(v61.physicalCount == v70.physicalCount, "6.1 and 7.0 count the same packages");
  require(v61.coreCount == (v70.coreCount == 0 ? 1 : v70.coreCount),
          "6.1 and 7.0 count the same cores");
  if (scanned == 0) {
    require(platform.logicalCount == v70.logicalCount &&
                platform.physicalCount == v70.physicalCount && platform.coreCount == v70.coreCount,
            "the default scan counts as 7.0 when it finds packages");
  } else {
    require(scanned == -1, "the default scan gives 0 or -1");
    require(v70.coreCount == 0, "no packages: 7.0 counts no cores");
    require(platform.logicalCount == 65535 && platform.physicalCount == 65535 &&
                platform.coreCount == 65535,
            "a failed default scan leaves the counts alone");
  }
  return 0;
}
