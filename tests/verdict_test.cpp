// The hyper-threading verdict and the summary report, as platformHyperThreading
// stores and writes them and as printSummary writes them.
#include <gtest/gtest.h>

#include <string>

#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {

using testsupport::OutputCapture;

struct VerdictCase {
  int logical, cores, physical;
  int state;
  const char* verdictWord;  // "not capable", "Disabled", "Enabled"
  bool multiCore;
  bool multiProcessor;
};

std::string expectedReport(const VerdictCase& c) {
  return std::string("\tHyper-Threading Technology: ") + c.verdictWord +
         "  \n\tMulti-core: " + (c.multiCore ? "Yes \n" : "No\n") +
         "\tMulti-processor: " + (c.multiProcessor ? "Yes" : "No") +
         "\n\tTotal physical processors = " + std::to_string(c.physical) +
         " \n\tTotal logical processors = " + std::to_string(c.logical) +
         " \n\tTotal cores = " + std::to_string(c.cores) + " \n";
}

void PrintTo(const VerdictCase& c, std::ostream* os) {
  *os << "L" << c.logical << " C" << c.cores << " P" << c.physical;
}

class Verdict : public ::testing::TestWithParam<VerdictCase> {
 protected:
  void fill(XrProcDetector& d) {
    d.logicalCount = GetParam().logical;
    d.coreCount = GetParam().cores;
    d.physicalCount = GetParam().physical;
  }
};

TEST_P(Verdict, PlatformHyperThreadingStoresAndWrites) {
  OutputCapture capture;
  XrProcDetector detector(tzDebugSteps, 0, capture.stream(), nullptr);
  fill(detector);
  EXPECT_EQ(detector.platformHyperThreading(), 0);
  EXPECT_EQ(detector.hyperThreadState, GetParam().state);
  EXPECT_EQ(capture.streamText(), expectedReport(GetParam()));
}

TEST_P(Verdict, PrintSummaryWritesTheSameAndStoresNothing) {
  OutputCapture capture;
  XrProcDetector detector(tzDebugSteps, 0, capture.stream(), nullptr);
  fill(detector);
  detector.hyperThreadState = 3;  // as the CPUID estimate may leave it
  EXPECT_EQ(detector.printSummary(), 0);
  EXPECT_EQ(detector.hyperThreadState, 3);
  EXPECT_EQ(capture.streamText(), expectedReport(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(
    Counts, Verdict,
    ::testing::Values(
        VerdictCase{8, 4, 1, 2, "Enabled", true, false},
        VerdictCase{4, 4, 1, 0, "not capable", true, false},
        VerdictCase{16, 8, 2, 2, "Enabled", true, true},
        VerdictCase{2, 2, 2, 0, "not capable", false, true},  // cores equal packages
        VerdictCase{2, 4, 1, 1, "Disabled", true, false},     // ratio 0
        VerdictCase{4, 1, 1, 2, "Enabled", false, false},     // one core: no division
        VerdictCase{1, 1, 1, 0, "not capable", false, false},
        VerdictCase{6, 4, 1, 0, "not capable", true, false},  // 6 / 4 truncates to 1
        VerdictCase{4, 0, 1, 2, "Enabled", false, false},     // no cores: ratio is L
        VerdictCase{1, 0, 1, 0, "not capable", false, false},
        VerdictCase{3, -2, 1, 2, "Enabled", false, false},  // negative cores: no division
        VerdictCase{-6, 4, 1, 1, "Disabled", true, false},  // -6 / 4 truncates toward zero
        VerdictCase{65535, 65535, 65535, 0, "not capable", false, true}));

TEST(PrintSummary, SilentAtLevelZeroOrBelow) {
  for (int level : {0, -1}) {
    OutputCapture capture;
    XrProcDetector detector(static_cast<tz_debuglevel>(level), 1, capture.stream(), nullptr);
    EXPECT_EQ(detector.printSummary(), 0);
    EXPECT_EQ(capture.log(), "");
  }
}

TEST(PrintSummary, LevelOneWithNeitherStreamNorEchoWritesNothingVisible) {
  OutputCapture capture;
  XrProcDetector detector(tzDebugSteps, 0, nullptr, nullptr);
  EXPECT_EQ(detector.printSummary(), 0);
  EXPECT_EQ(capture.log(), "");
}

}  // namespace
