// A C++ host of the inline layer as it stood at one release: built against
// that release's headers and against the current ones, both linked to the
// current library, it must print the same.
#include <cstdio>

#include <xrprocdetector/detect.h>

using namespace xrprocdetector;

int main(int argc, char** argv) {
  Error error;
  const std::optional<Source> source = Source::snapshot(argc > 1 ? argv[1] : "", error);
  if (!source) return std::fprintf(stderr, "%s\n", error.message().c_str()), 1;
  const Topology t = topology(*source);
  std::printf("online %s usable %s offline %s\n", t.online.toList().c_str(),
              t.usable.toList().c_str(), t.offline.toList().c_str());
  for (const CpuSet& core : t.cores)
    std::printf("core %s\n", core.toList().c_str());
  for (const CoreKindSet& kind : t.coreKinds)
    std::printf("kind %s rank %d cores %d %s\n", kind.kind.c_str(), kind.rank, kind.cores,
                kind.processors.toList().c_str());
  std::printf("quota %g effective %d vendor %s missing '%s' error '%s'\n", t.cpuQuota.value_or(0),
              t.effectiveProcessors.value_or(-1), t.hypervisorVendor.value_or("-").c_str(),
              t.missing.c_str(), t.error.message().c_str());
  std::optional<ProcessorBudget> budget = ProcessorBudget::open(*source, &error);
  const Budget b = budget ? budget->read() : Budget{};
  std::printf("budget %s %d '%s'\n", b.usable.toList().c_str(), b.effectiveProcessors,
              (budget ? b.error : error).message().c_str());
  DetectOptions options;
  options.debugLevel = 1;
  const Detection d = detect(Generation::k70, *source, options);
  std::printf("7.0 %s %d %d %d %d\n%s", d.className, d.packages, d.cores, d.logicalProcessors,
              static_cast<int>(d.hyperThreading), d.debug.c_str());
  const Agreement a = compare(d, kernelTopology(t));
  std::printf("agree %d %d %d\n", static_cast<int>(a.packages), static_cast<int>(a.cores),
              static_cast<int>(a.smt));
  return 0;
}
