// The CPUID probes of the default detector, on scripted processors.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "support/scripted_hardware.h"
#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector_linux32.h"

namespace {

using Queries = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
using scripted::vendor;
using testsupport::OutputCapture;

constexpr std::uint32_t kHyperThreadingFlag = 0x10000000;

TEST(CpuidProbes, HighestLeafZeroAnswersWithoutLeafOne) {
  scripted::setCpuid({vendor(0, "GenuineIntel"), {1, 0, {0, 0x08FF0000, 0, 0xFFFFFFFF}}});
  XrProcDetectorLinux32 d(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_EQ(d.CpuIDSupported(), 0u);
  EXPECT_EQ(d.LogicalProcPerPhysicalProc(), 1u);
  EXPECT_EQ(d.HWD_MTSupported(), 0u);
  EXPECT_EQ(d.GetAPIC_ID(), 0u);
  EXPECT_EQ(d.IsMultiCoreCapable(), 1u);
  for (const auto& query : scripted::cpuidLog())
    EXPECT_EQ(query.first, 0u);
}

TEST(CpuidProbes, LeafOneFields) {
  scripted::setCpuid({vendor(2, "GenuineIntel"), {1, 0, {0, 0x2A100800, 0, 0xFFFFFFFF}}});
  XrProcDetectorLinux32 d(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_EQ(d.LogicalProcPerPhysicalProc(), 0x10u);
  EXPECT_EQ(d.HWD_MTSupported(), kHyperThreadingFlag);  // the mask, not 1
  EXPECT_EQ(d.GetAPIC_ID(), 0x2Au);
  // Zero logical processors per package reads as one; a clear flag as 0.
  scripted::setCpuid({vendor(2, "GenuineIntel"), {1, 0, {0, 0xFF00FFFF, 0, ~kHyperThreadingFlag}}});
  EXPECT_EQ(d.LogicalProcPerPhysicalProc(), 1u);
  EXPECT_EQ(d.HWD_MTSupported(), 0u);
}

struct CoresCase {
  const char* name;
  std::vector<scripted::Answer> answers;
  unsigned expected;
  Queries queries;
  const char* lines;
};

void PrintTo(const CoresCase& c, std::ostream* os) {
  *os << c.name;
}

class CoresPerPackage : public ::testing::TestWithParam<CoresCase> {};

TEST_P(CoresPerPackage, AsksExactlyTheseLeaves) {
  const CoresCase& c = GetParam();
  scripted::setCpuid(c.answers);
  OutputCapture capture;
  XrProcDetectorLinux32 d(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(d.IsMultiCoreCapable(), c.expected);
  EXPECT_EQ(scripted::cpuidLog(), c.queries);
  EXPECT_EQ(capture.streamText(), c.lines);
  EXPECT_EQ(d.CorePerPhysicalProc(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Processors, CoresPerPackage,
    ::testing::Values(
        // Leaf 11 present: one core per package whatever the processor has.
        // The second query's leaf is the first one's EAX (here 1), at
        // sub-leaf 1; the line prints EBX whole, twice.
        CoresCase{"Leaf11",
                  {vendor(0x16, "GenuineIntel"),
                   {11, 0, {1, 0x00010002, 0, 0}},
                   {4, 0, {0x1C000000, 0, 0, 0}}},
                  1,
                  {{0, 0}, {11, 0}, {1, 1}},
                  "Leaf11 - numLogical: 65538, numThreads: 65538\n"},
        CoresCase{"Leaf11OnAmd",
                  {vendor(0x10, "AuthenticAMD"),
                   {11, 0, {5, 0x0000000C, 0, 0}},
                   {0x80000008, 0, {0, 0, 0x3F, 0}}},
                  1,
                  {{0, 0}, {11, 0}, {5, 1}},
                  "Leaf11 - numLogical: 12, numThreads: 12\n"},
        // Leaf 11 with a zero low half: the second query's EBX decides
        // whether the vendor path runs at all.
        CoresCase{"Leaf11ZeroThenSecondEbxZero",
                  {vendor(0x0B, "GenuineIntel"),
                   {11, 0, {2, 0x00050000, 0, 0}},
                   {4, 0, {0x1C000000, 0, 0, 0}}},
                  1,
                  {{0, 0}, {11, 0}, {2, 1}},
                  "Leaf11 - numLogical: 327680, numThreads: 327680\n"},
        CoresCase{
            "Leaf11ZeroThenSecondEbxSet",
            {vendor(0x0B, "GenuineIntel"), {11, 0, {2, 0x00050000, 0, 0}}, {2, 1, {0, 1, 0, 0}}},
            1,  // leaf 4 is not scripted: bits 31..26 of 0, plus 1
            {{0, 0}, {11, 0}, {2, 1}, {0, 0}, {4, 0}},
            "Leaf11 - numLogical: 327680, numThreads: 327680\n"},
        // AuthenticAMD below leaf 11: leaf 0x80000008 ECX[7:0] + 1.
        CoresCase{"Amd",
                  {vendor(0x0A, "AuthenticAMD"), {0x80000008, 0, {0, 0, 0x3007, 0}}},
                  8,
                  {{0, 0}, {0, 0}, {0x80000008, 0}},
                  ""},
        // Any other vendor: leaf 4 EAX[31:26] + 1.
        CoresCase{"Intel",
                  {vendor(0x0A, "GenuineIntel"), {4, 0, {0x1C004121, 0, 0, 0}}},
                  8,
                  {{0, 0}, {0, 0}, {4, 0}},
                  ""},
        CoresCase{"OtherVendorTakesTheIntelPath",
                  {vendor(0x05, "CentaurHauls"), {4, 0, {0x0C000000, 0, 0, 0}}},
                  4,
                  {{0, 0}, {0, 0}, {4, 0}},
                  ""},
        // The below-leaf-4 guard tests the first vendor word, not the highest
        // leaf: a highest leaf of 2 still asks leaf 4...
        CoresCase{"GuardIgnoresTheHighestLeaf",
                  {vendor(0x02, "GenuineIntel"), {4, 0, {0x04000000, 0, 0, 0}}},
                  2,
                  {{0, 0}, {0, 0}, {4, 0}},
                  ""},
        // ...and only a vendor word below 4 makes it fire.
        CoresCase{"GuardOnTheVendorWord",
                  {{0, 0, {0x0A, 3, 0, 0}}, {4, 0, {0x1C000000, 0, 0, 0}}},
                  1,
                  {{0, 0}, {0, 0}},
                  ""}),
    [](const ::testing::TestParamInfo<CoresCase>& info) { return std::string(info.param.name); });

TEST(ScriptedHardware, RejectsAnswerGivenTwice) {
  // A script that names one (leaf, sub-leaf) twice is a mistake in the test.
  EXPECT_NONFATAL_FAILURE(scripted::setCpuid({{4, 0, {1, 0, 0, 0}}, {4, 0, {2, 0, 0, 0}}}),
                          "scripted twice");
}

}  // namespace
