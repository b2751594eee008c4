// A host program built against an installed xrprocdetector: runs the default
// detector and prints what it found. Exits 1 when the counts are not to be
// trusted, 0 otherwise.
#include <cstdio>
#include <memory>

#include <xrprocdetector/xrprocdetector.h>

int main() {
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  if (detector->getProcData() < 0) {
    std::fprintf(stderr, "host: processor detection failed\n");
    return 1;
  }
  std::printf("%d packages, %d cores, %d logical processors\n", detector->physicalCount,
              detector->coreCount, detector->logicalCount);
  std::printf("hyper-threading %d, VMware %d\n", detector->hyperThreadState, detector->vmState);
  return 0;
}
