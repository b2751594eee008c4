// Each generation's whole detection: its sequence, its counts and every line
// of its report.
#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <string>

#include "support/scripted_hardware.h"
#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector_legacy_53.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

using scripted::vendor;
using testsupport::fixture;
using testsupport::OutputCapture;

const char kRule[] = "=================================\n";

std::string totals(int physical, int logical, int cores) {
  return "\tTotal physical processors = " + std::to_string(physical) +
         " \n\tTotal logical processors = " + std::to_string(logical) +
         " \n\tTotal cores = " + std::to_string(cores) + " \n";
}

// ---------------------------------------------------------------------------
// 5.3

TEST(Generation53, CountsConfiguredProcessorsWithSixLines) {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  const std::string n = std::to_string(configured);
  OutputCapture capture;
  XrProcDetectorLegacy_53 detector(tzDebugSteps, 0, tzProcInfo61, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(capture.streamText(),
            std::string("\nProcessor Detection Algorithm 5.3\n") + kRule +
                "\tNumber of configured processors: " + n +
                "\n\tNumber of online processors: " + std::to_string(online) + "\n\t" + n +
                " Physical CPU(s) detected\n\t0 Physical Core(s) detected \n\t" + n +
                " Logical Processor(s) detected \n");
  EXPECT_EQ(detector.physicalCount, configured);
  EXPECT_EQ(detector.logicalCount, configured);
  EXPECT_EQ(detector.coreCount, 0);
  EXPECT_EQ(detector.hyperThreadState, 15);
  EXPECT_EQ(detector.vmState, 15);
  EXPECT_EQ(detector.spareCount1, 65535);
}

TEST(Generation53, UsesTheVirtualCountAndNeverSummarises) {
  struct Sixteen : XrProcDetectorLegacy_53 {
    using XrProcDetectorLegacy_53::XrProcDetectorLegacy_53;
    int bosGetLogicalProcessorCount() override { return 16; }
  };
  OutputCapture capture;
  Sixteen detector(tzDebugTrace, 1, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(detector.physicalCount, 16);
  EXPECT_EQ(detector.logicalCount, 16);
  const std::string before = capture.log();
  EXPECT_EQ(detector.printSummary(), 0);
  EXPECT_EQ(capture.log(), before);
}

TEST(Generation53, SilentAtLevelZero) {
  OutputCapture capture;
  XrProcDetectorLegacy_53 detector(tzDebugNone, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(capture.log(), "");
}

// ---------------------------------------------------------------------------
// 6.0 and 6.1

struct Frame6xCase {
  const char* name;
  const char* file;
  __tz_procInfoIndex index;
  const char* version;
  int logical, physical, cores;
  const char* verdict;  // the first piece, up to "Multi-processor: "
  const char* word;     // the second piece
};

void PrintTo(const Frame6xCase& c, std::ostream* os) {
  *os << c.name;
}

class Frame6x : public ::testing::TestWithParam<Frame6xCase> {};

TEST_P(Frame6x, ReportsTheCleanedCountsInTwoPieces) {
  const Frame6xCase& c = GetParam();
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture(c.file));
  OutputCapture capture;
  XrProcDetectorLegacy_6x detector(tzDebugSteps, 0, c.index, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(detector.logicalCount, c.logical);
  EXPECT_EQ(detector.physicalCount, c.physical);
  EXPECT_EQ(detector.coreCount, c.cores);
  EXPECT_EQ(detector.hyperThreadState, 15);
  EXPECT_EQ(detector.vmState, 15);
  const std::string banner =
      std::string("\nProcessor Detection Algorithm ") + c.version + "\n" + kRule;
  EXPECT_EQ(capture.streamText(),
            banner + c.verdict + c.word + totals(c.physical, c.logical, c.cores));
  // The verdict and the multi-processor word are two writes.
  EXPECT_NE(capture.log().find(std::string("Multi-processor: |") + c.word + "|"),
            std::string::npos);
}

const char kEnabledYes[] =
    "\tHyper-Threading Technology: Enabled  \n\tMulti-core: Yes \n\tMulti-processor: ";
const char kEnabledNo[] =
    "\tHyper-Threading Technology: Enabled  \n\tMulti-core: No\n\tMulti-processor: ";
const char kNotCapableYes[] =
    "\tHyper-Threading Technology: not capable  \n\tMulti-core: Yes \n\tMulti-processor: ";
const char kNotCapableNo[] =
    "\tHyper-Threading Technology: not capable  \n\tMulti-core: No\n\tMulti-processor: ";

INSTANTIATE_TEST_SUITE_P(Fixtures, Frame6x,
                         ::testing::Values(
                             // Two packages of 4 cores without hyper-threading: 6.0 counts 4
                             // distinct core ids, so 8 / 4 reads as Enabled; 6.1 sums 8 cores.
                             Frame6xCase{"TwoSocket60", "two-socket-8.cpuinfo", tzProcInfo60, "6.0",
                                         8, 2, 4, kEnabledYes, "Yes\n"},
                             Frame6xCase{"TwoSocket61", "two-socket-8.cpuinfo", tzProcInfo61, "6.1",
                                         8, 2, 8, kNotCapableYes, "Yes\n"},
                             Frame6xCase{"OneSocket60", "one-socket-ht-8.cpuinfo", tzProcInfo60,
                                         "6.0", 8, 1, 4, kEnabledYes, "No\n"},
                             // Any index but 1 runs 6.1.
                             Frame6xCase{"Index0Is61", "first-processor-cores-6.cpuinfo",
                                         tzProcInfo53, "6.1", 8, 1, 6, kNotCapableYes, "No\n"},
                             Frame6xCase{"Index3Is61", "first-processor-cores-6.cpuinfo",
                                         tzProcInfo70, "6.1", 8, 1, 6, kNotCapableYes, "No\n"},
                             Frame6xCase{"DefaultIndexIs61", "two-socket-8.cpuinfo", tzProcInfo71,
                                         "6.1", 8, 2, 8, kNotCapableYes, "Yes\n"},
                             // No physical id and no core id: 0 becomes 1, so 4, 1, 1.
                             Frame6xCase{"NoTopology61", "vm-no-physical-id-4.cpuinfo",
                                         tzProcInfo61, "6.1", 4, 1, 1, kEnabledNo, "No\n"},
                             Frame6xCase{"NoTopology60", "vm-no-physical-id-4.cpuinfo",
                                         tzProcInfo60, "6.0", 4, 1, 1, kEnabledNo, "No\n"},
                             Frame6xCase{"Empty61", "empty.cpuinfo", tzProcInfo61, "6.1", 1, 1, 1,
                                         kNotCapableNo, "No\n"}),
                         [](const ::testing::TestParamInfo<Frame6xCase>& info) {
                           return std::string(info.param.name);
                         });

TEST(Frame6x, CleansUpEvenWhenSilent) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("empty.cpuinfo"));
  for (__tz_procInfoIndex index : {tzProcInfo60, tzProcInfo61}) {
    OutputCapture capture;
    XrProcDetectorLegacy_6x detector(tzDebugNone, 1, index, capture.stream(), nullptr);
    EXPECT_EQ(detector.getProcData(), 0);
    EXPECT_EQ(detector.logicalCount, 1);
    EXPECT_EQ(detector.physicalCount, 1);
    EXPECT_EQ(detector.coreCount, 1);
    EXPECT_EQ(capture.log(), "");
  }
}

TEST(Frame6x, LeavesNegativeCountsAlone) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText,
                             "processor : 0\nphysical id : 0\ncpu cores : -4\n");
  OutputCapture capture;
  XrProcDetectorLegacy_6x detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(detector.coreCount, -4);
  EXPECT_NE(capture.streamText().find(std::string(kNotCapableNo) + "No\n" + totals(1, 1, -4)),
            std::string::npos);
}

TEST(Frame6x, PrintSummaryReportsTheFieldsAsTheyStand) {
  OutputCapture capture;
  XrProcDetectorLegacy_6x detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.printSummary(), 0);
  EXPECT_EQ(capture.streamText(),
            std::string(kNotCapableNo) + "Yes\n" + totals(65535, 65535, 65535));
  // One write for the verdict line, unlike the frame's own report.
  EXPECT_NE(capture.log().find("Multi-processor: Yes\n|"), std::string::npos);
}

TEST(Frame6x, CountsConfiguredProcessorsLikeTheBase) {
  OutputCapture capture;
  XrProcDetectorLegacy_6x detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.bosGetLogicalProcessorCount(), sysconf(_SC_NPROCESSORS_CONF));
  EXPECT_EQ(capture.streamText().rfind("Number of configured processors: ", 0), 0u);
}

// ---------------------------------------------------------------------------
// 7.0

TEST(Generation70, BannerThenSummary) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("one-socket-ht-8.cpuinfo"));
  for (int level : {1, 2}) {
    OutputCapture capture;
    XrProcDetectorLinux32_70 detector(static_cast<tz_debuglevel>(level), 0, tzProcInfo53,
                                      capture.stream(), nullptr);
    EXPECT_EQ(detector.getProcData(), 0);
    EXPECT_EQ(detector.hyperThreadState, 2);
    EXPECT_EQ(detector.vmState, 15);
    EXPECT_EQ(capture.streamText(), std::string("\nProcessor Detection Algorithm 7.0\n") + kRule +
                                        (level == 2 ? "XrProcDetectorLinux32::enter\n" : "") +
                                        kEnabledYes + "No\n" + totals(1, 8, 4));
  }
}

TEST(Generation70, NoPhysicalIdIsOnePackageAndNoCores) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("vm-no-physical-id-4.cpuinfo"));
  OutputCapture capture;
  XrProcDetectorLinux32_70 detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(detector.logicalCount, 4);
  EXPECT_EQ(detector.physicalCount, 1);
  EXPECT_EQ(detector.coreCount, 0);
  // Cores 0 is below the logical count: Enabled, multi-core No.
  EXPECT_EQ(detector.hyperThreadState, 2);
  EXPECT_NE(capture.streamText().find(std::string(kEnabledNo) + "No\n"), std::string::npos);
}

// ---------------------------------------------------------------------------
// The default detector's three strategies

using DefaultSequence = testsupport::ThreadStateTest;

struct TwoProcessors : XrProcDetectorLinux32 {
  using XrProcDetectorLinux32::XrProcDetectorLinux32;
  int bosGetLogicalProcessorCount() override { return 2; }
};

std::string banner(const char* version, const char* strategy) {
  return std::string("\nProcessor Detection Algorithm ") + version + " " + strategy + "\n" + kRule;
}

TEST_F(DefaultSequence, CpuinfoSuccessEndsItAndNeverAsksCpuid) {
  scripted::setCpuid({vendor(10, "GenuineIntel")});
  scripted::setBackdoor(scripted::Backdoor::kMagic);
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("two-socket-8.cpuinfo"));
  OutputCapture capture;
  TwoProcessors detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(capture.streamText(),
            banner("7.1", "/proc/cpuinfo") + kNotCapableYes + "Yes\n" + totals(2, 8, 8));
  EXPECT_TRUE(scripted::cpuidLog().empty());
  EXPECT_EQ(scripted::backdoorQueries(), 0);
  EXPECT_EQ(detector.hyperThreadState, 0);
  EXPECT_EQ(detector.vmState, 15);
}

TEST_F(DefaultSequence, NoPhysicalIdGoesOnToCpuid) {
  scripted::setCpuid(
      {vendor(10, "GenuineIntel"), {1, 0, {0, 2u << 16, 0, 0x10000000}}, {4, 0, {0, 0, 0, 0}}});
  scripted::setBackdoor(scripted::Backdoor::kFault);
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("vm-no-physical-id-4.cpuinfo"));
  OutputCapture capture;
  TwoProcessors detector(tzDebugSteps, 0, tzProcInfo70, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  const std::string& text = capture.streamText();
  const std::string first = banner("7.0", "/proc/cpuinfo") +
                            "\nNo physical processor Ids found in /proc/cpuinfo\n"
                            "4 logical processors found in /proc/cpuinfo\n" +
                            banner("7.0", "cpuid");
  EXPECT_EQ(text.substr(0, first.size()), first);
  EXPECT_EQ(text.find("logical only"), std::string::npos);
  // 2 logical, 2 per package, 1 core: one package; twice the cores is 2.
  EXPECT_EQ(detector.physicalCount, 1);
  EXPECT_EQ(detector.coreCount, 1);
  EXPECT_EQ(detector.logicalCount, 2);
  EXPECT_EQ(detector.hyperThreadState, 2);
  EXPECT_EQ(detector.vmState, 0);
}

TEST_F(DefaultSequence, BothFailingFallsBackToTheLogicalCount) {
  scripted::setCpuid({vendor(0, "GenuineIntel")});
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("vm-no-physical-id-4.cpuinfo"));
  OutputCapture capture;
  TwoProcessors detector(tzDebugSteps, 0, tzProcInfoTip, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  EXPECT_EQ(capture.streamText(), banner("Tip", "/proc/cpuinfo") +
                                      "\nNo physical processor Ids found in /proc/cpuinfo\n"
                                      "4 logical processors found in /proc/cpuinfo\n" +
                                      banner("Tip", "cpuid") +
                                      "Maximum CPUID level reported is 0.\n" +
                                      banner("Tip", "logical only"));
  EXPECT_EQ(detector.logicalCount, 2);
  EXPECT_EQ(detector.physicalCount, 2);
  EXPECT_EQ(detector.coreCount, 2);
  EXPECT_EQ(detector.hyperThreadState, 15);
  EXPECT_EQ(detector.vmState, 15);
  EXPECT_EQ(scripted::backdoorQueries(), 0);
}

TEST_F(DefaultSequence, BannersNameTheVersionByIndex) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("one-socket-ht-8.cpuinfo"));
  const char* names[] = {"5.3", "6.0", "6.1", "7.0", "7.1", "8.0", "Tip"};
  for (int i = 0; i < 7; ++i) {
    OutputCapture capture;
    XrProcDetectorLinux32 detector(tzDebugSteps, 0, static_cast<__tz_procInfoIndex>(i),
                                   capture.stream(), nullptr);
    detector.getProcData();
    EXPECT_EQ(capture.streamText().rfind(banner(names[i], "/proc/cpuinfo"), 0), 0u) << i;
  }
}

TEST_F(DefaultSequence, EntryTraceOnlyAtLevelTwo) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, fixture("one-socket-ht-8.cpuinfo"));
  for (int level : {1, 2}) {
    OutputCapture capture;
    XrProcDetectorLinux32 detector(static_cast<tz_debuglevel>(level), 0, capture.stream(), nullptr);
    detector.getProcData();
    EXPECT_EQ(capture.streamText().find("XrProcDetectorLinux32::enter\n") != std::string::npos,
              level == 2);
  }
}

}  // namespace
