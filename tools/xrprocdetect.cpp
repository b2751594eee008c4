// xrprocdetect: runs the platform's default detector on this machine.
#include <cstdio>
#include <memory>

#include <xrprocdetector/xrprocdetector.h>

int main() {
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  const int result = detector->getProcData();
  std::printf("getProcData:         %d\n", result);
  std::printf("physical processors: %d\n", detector->physicalCount);
  std::printf("cores:               %d\n", detector->coreCount);
  std::printf("logical processors:  %d\n", detector->logicalCount);
  std::printf("hyper-threading:     %d\n", detector->hyperThreadState);
  std::printf("virtual machine:     %d\n", detector->vmState);
  return result < 0 ? 1 : 0;
}
