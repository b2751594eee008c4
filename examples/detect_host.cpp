// A host program on the library's entry points: the default generation's
// counts, and how many busy threads this process should start.
#include <cstdio>

#include <xrprocdetector/detect.h>

int main() {
  using namespace xrprocdetector;
  const Detection d = detect(Generation::kDefault);
  if (!d.counted || d.result < 0) {
    std::fprintf(stderr, "host: %s\n", d.error.empty() ? d.note.c_str() : d.error.c_str());
    return 1;
  }
  std::printf("%d packages, %d cores, %d logical processors\n", d.packages, d.cores,
              d.logicalProcessors);
  const KernelTopology kernel = kernelTopology();
  std::printf("threads to start: %d\n", kernel.effectiveProcessors.value_or(d.logicalProcessors));
  return 0;
}
