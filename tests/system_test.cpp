// The real library on this machine: the real VMware probe and affinity
// calls, and whole detections with /proc/cpuinfo replaced by a fixture in a
// private mount namespace (as root; skipped otherwise).
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>

#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"

namespace {

using testsupport::fixture;
using testsupport::OutputCapture;

TEST(RealMachine, VMwareProbeSurvivesAndResetsSigsegv) {
  // Runs in a child: the probe leaves SIGSEGV blocked and at its default.
  const int status = testsupport::runInChild([] {
    struct sigaction mine {};
    mine.sa_handler = [](int) { _exit(3); };
    sigaction(SIGSEGV, &mine, nullptr);
    XrProcDetectorLinux32 detector(tzDebugNone, 0, nullptr, nullptr);
    if (detector.IsInsideVMware()) return 1;  // this machine is no VMware guest
    struct sigaction now {};
    sigaction(SIGSEGV, nullptr, &now);
    if (now.sa_handler != SIG_DFL) return 2;
    return 0;
  });
  EXPECT_EQ(status, 0) << "1: probe said VMware, 2: SIGSEGV not default, other: died";
}

TEST(RealMachine, CpuidEstimateRestoresTheAffinity) {
  cpu_set_t before;
  CPU_ZERO(&before);
  ASSERT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
  OutputCapture capture;
  XrProcDetectorLinux32 detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.getCPUIDProcData(), 0);
  testsupport::unblockSegv();
  cpu_set_t after;
  CPU_ZERO(&after);
  sched_getaffinity(0, sizeof after, &after);
  EXPECT_TRUE(CPU_EQUAL(&before, &after));
  EXPECT_EQ(detector.logicalCount, sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_NE(capture.streamText().find("Processor found with CPUID level of 4 or higher.\n"),
            std::string::npos);
}

TEST(RealMachine, FactoryDetectorWritesNothing) {
  OutputCapture capture;
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  EXPECT_EQ(detector->getProcData(), 0);
  EXPECT_EQ(detector->printSummary(), 0);
  testsupport::unblockSegv();
  EXPECT_EQ(capture.log(), "");
  EXPECT_GT(detector->logicalCount, 0);
}

// Runs `body` in a child whose /proc/cpuinfo is the given fixture (or, with
// an empty name, missing); the text the body returns comes back, or an
// empty text when the child did not finish within `seconds`.
struct Outcome {
  bool skipped = false;
  bool finished = false;
  std::string text;
};

Outcome withCpuinfo(const std::string& name, const std::function<std::string()>& body,
                    double seconds = 20) {
  Outcome outcome;
  if (geteuid() != 0) {
    outcome.skipped = true;
    return outcome;
  }
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return outcome;
  const int status = testsupport::runInChild(
      [&]() -> int {
        close(pipeFds[0]);
        if (unshare(CLONE_NEWNS) != 0) return 77;
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
        const int mounted =
            name.empty() ? mount("none", "/proc", "tmpfs", 0, nullptr)
                         : mount(fixture(name).c_str(), "/proc/cpuinfo", nullptr, MS_BIND, nullptr);
        if (mounted != 0) return 77;
        const std::string text = body();
        const bool written =
            write(pipeFds[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
        return written ? 0 : 1;
      },
      seconds);
  close(pipeFds[1]);
  if (status == 77) {
    outcome.skipped = true;
  } else if (status == 0) {
    outcome.finished = true;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0)
      outcome.text.append(buffer, n);
  }
  close(pipeFds[0]);
  return outcome;
}

std::string fields(XrProcDetector& d, int result) {
  return std::to_string(result) + " " + std::to_string(d.logicalCount) + " " +
         std::to_string(d.physicalCount) + " " + std::to_string(d.coreCount) + " " +
         std::to_string(d.hyperThreadState) + " " + std::to_string(d.vmState);
}

template <class Detector>
std::function<std::string()> detect(__tz_procInfoIndex index) {
  return [index] {
    Detector detector(tzDebugNone, 0, index, nullptr, nullptr);
    const int result = detector.getProcData();
    return fields(detector, result);
  };
}

struct EndToEndCase {
  const char* name;
  const char* file;
  std::function<std::string()> run;
  const char* expected;  // result, logical, physical, cores, hyper-threading, VM
};

void PrintTo(const EndToEndCase& c, std::ostream* os) {
  *os << c.name;
}

class EndToEnd : public ::testing::TestWithParam<EndToEndCase> {};

TEST_P(EndToEnd, DetectsFromTheReplacedFile) {
  const Outcome outcome = withCpuinfo(GetParam().file, GetParam().run);
  if (outcome.skipped) GTEST_SKIP() << "needs root and mount namespaces to replace /proc/cpuinfo";
  ASSERT_TRUE(outcome.finished);
  EXPECT_EQ(outcome.text, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, EndToEnd,
    ::testing::Values(EndToEndCase{"Default", "one-socket-ht-8.cpuinfo",
                                   detect<XrProcDetectorLinux32>(tzProcInfo71), "0 8 1 4 2 15"},
                      EndToEndCase{"DefaultTwoSocket", "two-socket-8.cpuinfo",
                                   detect<XrProcDetectorLinux32>(tzProcInfo71), "0 8 2 8 0 15"},
                      EndToEndCase{"Seven", "two-socket-amd-smt-32.cpuinfo",
                                   detect<XrProcDetectorLinux32_70>(tzProcInfo71),
                                   "0 32 2 16 2 15"},
                      EndToEndCase{"SevenWithoutPhysicalId", "vm-no-physical-id-4.cpuinfo",
                                   detect<XrProcDetectorLinux32_70>(tzProcInfo71), "0 4 1 0 2 15"},
                      EndToEndCase{"SixZero", "two-socket-8.cpuinfo",
                                   detect<XrProcDetectorLegacy_6x>(tzProcInfo60), "0 8 2 4 15 15"},
                      EndToEndCase{"SixOne", "two-socket-8.cpuinfo",
                                   detect<XrProcDetectorLegacy_6x>(tzProcInfo61), "0 8 2 8 15 15"},
                      EndToEndCase{"SixOneEmpty", "empty.cpuinfo",
                                   detect<XrProcDetectorLegacy_6x>(tzProcInfo61), "0 1 1 1 15 15"}),
    [](const ::testing::TestParamInfo<EndToEndCase>& info) {
      return std::string(info.param.name);
    });

TEST(EndToEndDefault, WithoutPhysicalIdsTheRealCpuidAnswers) {
  const Outcome outcome = withCpuinfo("vm-no-physical-id-4.cpuinfo", [] {
    OutputCapture capture;
    XrProcDetectorLinux32 detector(tzDebugSteps, 0, capture.stream(), nullptr);
    const int result = detector.getProcData();
    return std::to_string(result) + " " + std::to_string(detector.logicalCount) + "\n" +
           capture.streamText();
  });
  if (outcome.skipped) GTEST_SKIP() << "needs root and mount namespaces to replace /proc/cpuinfo";
  ASSERT_TRUE(outcome.finished);
  const std::string start = "0 " + std::to_string(sysconf(_SC_NPROCESSORS_CONF)) +
                            "\n\nProcessor Detection Algorithm 7.1 /proc/cpuinfo\n"
                            "=================================\n"
                            "\nNo physical processor Ids found in /proc/cpuinfo\n"
                            "4 logical processors found in /proc/cpuinfo\n"
                            "\nProcessor Detection Algorithm 7.1 cpuid\n";
  EXPECT_EQ(outcome.text.substr(0, start.size()), start);
  EXPECT_EQ(outcome.text.find("logical only"), std::string::npos);
}

TEST(EndToEndUnreadable, CpuinfoScansNeverReturn) {
  // With /proc/cpuinfo missing, every scanning generation waits for an end
  // of file that never comes; the child is killed after a second.
  const std::function<std::string()> runs[] = {
      detect<XrProcDetectorLinux32>(tzProcInfo71), detect<XrProcDetectorLinux32_70>(tzProcInfo71),
      detect<XrProcDetectorLegacy_6x>(tzProcInfo60), detect<XrProcDetectorLegacy_6x>(tzProcInfo61)};
  for (const auto& run : runs) {
    const Outcome outcome = withCpuinfo("", run, 1.0);
    if (outcome.skipped) GTEST_SKIP() << "needs root and mount namespaces to hide /proc/cpuinfo";
    EXPECT_FALSE(outcome.finished) << outcome.text;
  }
}

}  // namespace
