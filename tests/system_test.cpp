// The real library on this machine: the CPUID estimate with the real
// instructions, affinity calls and VMware probe, the factory's detector, and
// scans of a /proc/cpuinfo that cannot be opened.
#include <sys/wait.h>

#include <filesystem>
#include <sstream>
#include <vector>

#include <xrprocdetector/detect.h>

#include "support/test_support.h"

TEST(RealMachine, CpuidEstimateAndVMwareProbe) {
  struct sigaction mine {};
  mine.sa_handler = [](int) { _exit(3); };  // a fault that the probe did not take
  sigaction(SIGSEGV, &mine, nullptr);
  cpu_set_t before, after;
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  XrProcDetectorLinux32 detector(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_FALSE(detector.IsInsideVMware());  // this machine is no VMware guest
  testsupport::unblockSegv();               // as the probe's fault left it blocked
  EXPECT_EQ(detector.getCPUIDProcData(), 0);
  testsupport::unblockSegv();
  ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
  EXPECT_TRUE(CPU_EQUAL(&before, &after));  // given back
  EXPECT_EQ(detector.logicalCount, sysconf(_SC_NPROCESSORS_CONF));
  struct sigaction now {};
  sigaction(SIGSEGV, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL);  // not the handler in place before
}

// The calling thread's own affinity, narrower than process 1's, is what is
// read: for the usable processors, a snapshot's affinity, and what the
// detectors give back after pinning.
TEST(RealMachine, TheCallersOwnAffinityIsReadAndGivenBack) {
  cpu_set_t all, one, after;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  ASSERT_EQ(sched_getaffinity(1, sizeof one, &one), 0);
  if (CPU_COUNT(&one) < 2) GTEST_SKIP() << "process 1 may use fewer than two processors";
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &one))
    --last;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  using namespace xrprocdetector;
  EXPECT_EQ(kernelTopology().usableProcessors, 1);
  const std::string saved = testing::TempDir() + "affinity-" + std::to_string(getpid());
  EXPECT_TRUE(saveSnapshot(saved));
  const auto snapshot = Source::snapshot(saved);
  EXPECT_EQ(snapshot ? kernelTopology(*snapshot).usableProcessors : 0, 1);
  std::filesystem::remove_all(saved);
  detect(Generation::kDefault);
  XrProcDetectorLinux32(tzDebugNone, 0, nullptr, nullptr).getCPUIDProcData();
  testsupport::unblockSegv();
  ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
  sched_setaffinity(0, sizeof all, &all);
  EXPECT_TRUE(CPU_EQUAL(&one, &after));
}

TEST(RealMachine, FactoryHandsOutASilentDefaultDetector) {
  testsupport::OutputCapture capture;
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  EXPECT_NE(dynamic_cast<XrProcDetectorLinux32*>(detector.get()), nullptr);
  EXPECT_EQ(detector->procInfoIndex, tzProcInfo71);
  EXPECT_EQ(detector->getProcData(), 0);
  EXPECT_EQ(detector->printSummary(), 0);
  testsupport::unblockSegv();
  EXPECT_EQ(capture.log, "");
  EXPECT_GT(detector->logicalCount, 0);
}

TEST(RealMachine, ScansOfACpuinfoThatCannotBeOpenedNeverReturn) {
  std::vector<pid_t> children;  // one for each generation that scans
  for (const char* generation : {"6.0", "6.1", "7.0", "default"}) {
    children.push_back(fork());
    if (children.back() == 0) {
      const testsupport::CpuinfoMachine redirect(testsupport::CpuinfoMachine::kFile,
                                                 testsupport::fixture("missing"));
      testsupport::makeDetector(generation, tzDebugNone, nullptr)->getProcData();
      _exit(0);
    }
  }
  usleep(500 * 1000);
  for (pid_t child : children) {
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "a scan returned";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
}

namespace {

using namespace xrprocdetector;

std::string describe(const CpuSet& set) {
  return "{" + set.toList() + "}";
}

// Every field of a topology, in words.
std::string describe(const Topology& t) {
  std::ostringstream out;
  out << describe(t.online) << describe(t.present) << describe(t.offline) << describe(t.usable);
  for (const Processor& p : t.processors)
    out << " " << p.cpu << ":" << p.package << "," << p.die << "," << p.core << "," << p.thread
        << "," << p.kind << "," << p.online << p.usable;
  for (const auto* sets : {&t.packages, &t.cores}) {
    out << " |";
    for (const CpuSet& set : *sets)
      out << describe(set);
  }
  for (const CoreKindSet& k : t.coreKinds)
    out << " " << k.kind << k.rank << "," << k.cores << describe(k.processors);
  out << " smt " << (t.smt ? static_cast<int>(*t.smt) : -1) << " quota " << t.cpuQuota.value_or(-1)
      << " effective " << t.effectiveProcessors.value_or(-1) << " vm "
      << (t.hypervisor ? static_cast<int>(*t.hypervisor) : -1) << " "
      << t.hypervisorVendor.value_or("-") << " " << t.virtualizationType.value_or("-") << " "
      << t.container.value_or("-") << " missing " << t.missing << " error " << t.error;
  return out.str();
}

// Every field of a detection, its debug lines and summary included.
std::string describe(const Detection& d) {
  std::ostringstream out;
  out << d.counted << " " << d.result << " " << d.packages << " " << d.cores << " "
      << d.logicalProcessors << " " << static_cast<int>(d.hyperThreading) << " "
      << static_cast<int>(d.vm) << " "
      << (d.reportedVerdict ? static_cast<int>(*d.reportedVerdict) : -1) << " "
      << static_cast<int>(d.endedBy) << " note " << d.note << " error " << d.error << "\n"
      << d.debug << d.summary;
  return out.str();
}

}  // namespace

// A snapshot is a recording of what the readers read: replaying a fresh
// save gives every reader's live answer, field for field, and the save
// lists no file of its own.
TEST(RealMachine, ReplayingAFreshSaveGivesEveryLiveAnswer) {
  const std::filesystem::path dir =
      std::filesystem::temp_directory_path() / ("fidelity-" + std::to_string(getpid()));
  std::filesystem::remove_all(dir);
  std::string error;
  ASSERT_TRUE(saveSnapshot(dir.string(), &error)) << error;
  const std::optional<Source> saved = Source::snapshot(dir.string(), &error);
  ASSERT_TRUE(saved) << error;
  DetectOptions options;
  options.debugLevel = 2;
  options.summary = true;
  for (const Generation g :
       {Generation::k53, Generation::k60, Generation::k61, Generation::k70, Generation::kDefault})
    EXPECT_EQ(describe(detect(g, Source::live(), options)), describe(detect(g, *saved, options)))
        << generationName(g);
  const Topology live = topology();
  EXPECT_EQ(describe(live), describe(topology(*saved)));
  EXPECT_FALSE(live.online.empty());
  std::filesystem::remove_all(dir);
}
