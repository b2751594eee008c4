// A host program on the library's entry points: how many busy threads this
// process should start, where it may run them, and the default
// generation's own counts.
#include <cstdio>

#include <xrprocdetector/detect.h>

int main() {
  using namespace xrprocdetector;
  const Topology t = topology();
  if (!t.error.empty()) std::fprintf(stderr, "host: %s\n", t.error.message().c_str());
  std::printf("threads to start: %d\n", t.effectiveProcessors.value_or(1));
  std::printf("usable processors: %s of %s\n", t.usable.toList().c_str(),
              t.online.toList().c_str());
  for (const CoreKindSet& kind : t.coreKinds)
    std::printf("%s cores: %s\n", kind.kind.c_str(), kind.processors.toList().c_str());
  const Detection d = detect(Generation::kDefault);
  if (!d.counted || d.result < 0) {
    std::fprintf(stderr, "host: %s\n",
                 d.error.empty() ? d.note.c_str() : d.error.message().c_str());
    return 1;
  }
  std::printf("%d packages, %d cores, %d logical processors\n", d.packages, d.cores,
              d.logicalProcessors);
  return 0;
}
