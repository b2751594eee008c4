// The /proc/cpuinfo scans of every generation, on the project's fixtures and
// on small texts that each exercise one rule of the word walk.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "xrprocdetector/internal/word_reader.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

using testsupport::fixture;
using testsupport::readFile;
using xrprocdetector::detail::StreamWordReader;
using xrprocdetector::detail::WordReader;

struct Counts {
  int logical, physical, cores;
  bool operator==(const Counts& o) const {
    return logical == o.logical && physical == o.physical && cores == o.cores;
  }
};

std::ostream& operator<<(std::ostream& os, const Counts& c) {
  return os << "{" << c.logical << ", " << c.physical << ", " << c.cores << "}";
}

Counts countsOf(const XrProcDetector& d) {
  return {d.logicalCount, d.physicalCount, d.coreCount};
}

// The 6.0 and 6.1 scans alone, before the frame raises zero counts to 1.
Counts scan6x(const std::string& text, __tz_procInfoIndex index) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText, text);
  XrProcDetectorLegacy_6x detector(tzDebugNone, 0, index, nullptr, nullptr);
  if (index == tzProcInfo60) {
    detector.LinuxProcInfo60();
  } else {
    detector.LinuxProcInfo61();
  }
  return countsOf(detector);
}

Counts scan70(const std::string& text) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText, text);
  XrProcDetectorLinux32_70 detector(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_EQ(detector.platformProcInfo(), 0);
  return countsOf(detector);
}

// The default detector's scan; counts stay 65535 when it fails.
Counts scanDefault(const std::string& text, int* result) {
  XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText, text);
  XrProcDetectorLinux32 detector(tzDebugNone, 0, nullptr, nullptr);
  *result = detector.platformProcInfo();
  return countsOf(detector);
}

struct FixtureCase {
  const char* file;
  Counts scan60, scan61, scan70;
  int defaultResult;
  Counts scanDefault;
};

void PrintTo(const FixtureCase& c, std::ostream* os) {
  *os << c.file;
}

class FixtureScans : public ::testing::TestWithParam<FixtureCase> {};

TEST_P(FixtureScans, EachGenerationCountsAsItsRulesSay) {
  const FixtureCase& c = GetParam();
  const std::string text = readFile(fixture(c.file));
  ASSERT_TRUE(!text.empty() || std::string(c.file) == "empty.cpuinfo");
  EXPECT_EQ(scan6x(text, tzProcInfo60), c.scan60);
  EXPECT_EQ(scan6x(text, tzProcInfo61), c.scan61);
  EXPECT_EQ(scan70(text), c.scan70);
  int result = 0;
  EXPECT_EQ(scanDefault(text, &result), c.scanDefault);
  EXPECT_EQ(result, c.defaultResult);
}

constexpr Counts kUntouched{65535, 65535, 65535};

INSTANTIATE_TEST_SUITE_P(
    Fixtures, FixtureScans,
    ::testing::Values(
        FixtureCase{"one-socket-ht-8.cpuinfo", {8, 1, 4}, {8, 1, 4}, {8, 1, 4}, 0, {8, 1, 4}},
        // 6.0 counts distinct core ids over the whole file; the others sum
        // each package's cpu cores.
        FixtureCase{"two-socket-8.cpuinfo", {8, 2, 4}, {8, 2, 8}, {8, 2, 8}, 0, {8, 2, 8}},
        FixtureCase{
            "two-socket-amd-smt-32.cpuinfo", {32, 2, 8}, {32, 2, 16}, {32, 2, 16}, 0, {32, 2, 16}},
        // No physical id: 7.0 says one package, the default scan fails.
        FixtureCase{"vm-no-physical-id-4.cpuinfo", {4, 0, 0}, {4, 0, 0}, {4, 1, 0}, -1, kUntouched},
        FixtureCase{"old-no-cpu-cores-2.cpuinfo", {2, 1, 0}, {2, 1, 0}, {2, 1, 0}, 0, {2, 1, 0}},
        // The package's first processor says 6, the others 8.
        FixtureCase{
            "first-processor-cores-6.cpuinfo", {8, 1, 8}, {8, 1, 6}, {8, 1, 6}, 0, {8, 1, 6}},
        // Processors 1 and 2 come again: 1 moves to package 1 with 2 cores.
        FixtureCase{"repeated-processor.cpuinfo", {4, 2, 5}, {4, 2, 6}, {4, 2, 6}, 0, {4, 2, 6}},
        // Package 3 comes before any processor and ends up named by none.
        FixtureCase{"physical-id-first.cpuinfo", {2, 2, 2}, {2, 2, 4}, {2, 2, 4}, 0, {2, 2, 4}},
        // The last word "processor" becomes a processor number of its own.
        FixtureCase{"ends-after-processor.cpuinfo", {3, 1, 2}, {3, 1, 2}, {3, 1, 2}, 0, {3, 1, 2}},
        FixtureCase{"empty.cpuinfo", {0, 0, 0}, {0, 0, 0}, {0, 1, 0}, -1, kUntouched}));

struct TextCase {
  const char* name;
  const char* text;
  Counts scan60, scan61;
};

void PrintTo(const TextCase& c, std::ostream* os) {
  *os << c.name;
}

class WalkRules : public ::testing::TestWithParam<TextCase> {};

TEST_P(WalkRules, SixZeroAndSixOneAgreeOnTheWords) {
  EXPECT_EQ(scan6x(GetParam().text, tzProcInfo60), GetParam().scan60);
  EXPECT_EQ(scan6x(GetParam().text, tzProcInfo61), GetParam().scan61);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, WalkRules,
    ::testing::Values(
        // cpu MHz and cpu family: the second word is consumed, nothing stored.
        TextCase{"CpuMhzAndFamily",
                 "processor : 0\ncpu MHz : 2400.000\ncpu family : 6\nphysical id : 0\n"
                 "cpu cores : 3\n",
                 {1, 1, 0},
                 {1, 1, 3}},
        // "processor" inside a model name skips to the next colon, which
        // swallows the physical id line.
        TextCase{"ProcessorWordInModelName",
                 "processor\t: 0\nmodel name\t: Fast processor X\nphysical id\t: 0\n",
                 {1, 0, 0},
                 {1, 0, 0}},
        // Trigger words count only whole and in lower case.
        TextCase{"NotTriggers",
                 "Processor : 9\ncpuid level : 13\nphysical, id : 5\ncores id : 2\n"
                 "processor : 0\nphysical package : 7\ncore siblings : 3\n",
                 {1, 0, 0},
                 {1, 0, 0}},
        // The colon may come any number of words later, on another line.
        TextCase{"ColonOnALaterLine",
                 "processor\n\n  extra words\n:\t5\nphysical id\n:\n1\n",
                 {1, 1, 0},
                 {1, 1, 0}},
        // A value that is itself a trigger word is acted on in the same pass.
        TextCase{
            "ValueCascades", "processor : cpu cores : 4 physical id : 0\n", {1, 1, 0}, {1, 1, 4}},
        // The file ends right after a colon: the colon is the value.
        TextCase{"EndsAfterColon", "processor : 0\nphysical id :", {1, 1, 0}, {1, 1, 0}},
        // The file ends after "cpu", "core" or "physical": nothing recorded.
        TextCase{"EndsAfterCpu", "processor : 0\ncpu", {1, 0, 0}, {1, 0, 0}},
        TextCase{"EndsAfterPhysical", "processor : 0\nphysical", {1, 0, 0}, {1, 0, 0}},
        // Values are texts: 01 and 1 differ.
        TextCase{"TextsNotNumbers",
                 "processor : 1\nprocessor : 01\nprocessor : 1\n",
                 {2, 0, 0},
                 {2, 0, 0}},
        // All six white-space bytes separate words.
        TextCase{"WhiteSpaceSet",
                 "processor\v:\f7\r\nphysical\tid : 0\ncore id : a\n",
                 {1, 1, 1},
                 {1, 1, 0}},
        TextCase{"NoTrailingNewline",
                 "processor : 0\nphysical id : 0\ncpu cores : 2",
                 {1, 1, 0},
                 {1, 1, 2}}),
    [](const ::testing::TestParamInfo<TextCase>& info) { return std::string(info.param.name); });

TEST(WalkRules, ThreeHundredPhysicalIds) {
  std::string text;
  for (int i = 0; i < 300; ++i) {
    text += "processor : " + std::to_string(i) + "\nphysical id : " + std::to_string(i) +
            "\ncpu cores : 1\n";
  }
  // 6.0 keeps 256 values per list. 6.1 counts 256 packages; processors 256
  // to 299 are not added, so their physical ids land on record 255, which
  // ends with id 299: package 255 is named by no record and counts 0.
  EXPECT_EQ(scan6x(text, tzProcInfo60), (Counts{256, 256, 0}));
  EXPECT_EQ(scan6x(text, tzProcInfo61), (Counts{256, 256, 255}));
}

TEST(WalkRules, NulBytesArePartOfWords) {
  const std::string text("processor : 0\ncore id : 1\0\ncore id : 1\nphysical id : \0\n", 55);
  ASSERT_EQ(text.back(), '\n');
  // "1\0" and "1" are two core ids; "\0" is a physical id.
  EXPECT_EQ(scan6x(text, tzProcInfo60), (Counts{1, 1, 2}));
}

// What a reader hands out: each word read, then the end-of-file state.
template <class Reader>
std::vector<std::string> wordsOf(Reader& in, int reads) {
  std::vector<std::string> words;
  for (int i = 0; i < reads; ++i) {
    in.read();
    words.push_back(std::string(in.word()) + (in.eof() ? "|eof" : ""));
  }
  return words;
}

TEST(WordReader, MatchesStreamExtraction) {
  const std::string texts[] = {"",
                               " ",
                               "a",
                               "a ",
                               " a",
                               "processor\t: 0\n",
                               "x\ny\n\n",
                               std::string("a\0b c", 5),
                               "\xff\xfe \x80",
                               "one\vtwo\fthree\rfour",
                               "  trailing  \n\n"};
  for (const std::string& text : texts) {
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    StreamWordReader reference(stream);
    WordReader reader{std::string_view(text)};
    EXPECT_EQ(wordsOf(reader, 6), wordsOf(reference, 6)) << "text: " << text;
  }
}

TEST(WordReader, FailedSourceKeepsTheWordAndNeverReachesTheEnd) {
  WordReader reader("/nonexistent/cpuinfo");
  for (int i = 0; i < 3; ++i) {
    reader.read();
    EXPECT_FALSE(reader.eof());
    EXPECT_EQ(reader.word(), "");
  }
}

TEST(WordReader, WordsSpanningBufferRefills) {
  // A file of words longer than the buffer, read through the descriptor.
  const std::string path = ::testing::TempDir() + "/long-words.cpuinfo";
  const std::string longWord(200000, 'w');
  {
    std::FILE* f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs(("processor : " + longWord + " core id : 3 " + longWord).c_str(), f);
    std::fclose(f);
  }
  WordReader reader(path.c_str());
  std::vector<std::string> words;
  do {
    reader.read();
    words.emplace_back(reader.word());
  } while (!reader.eof());
  // processor : W core id : 3 W
  ASSERT_EQ(words.size(), 8u);
  EXPECT_EQ(words[2], longWord);
  EXPECT_EQ(words[6], "3");
  EXPECT_EQ(words[7], longWord);
  std::remove(path.c_str());
}

}  // namespace
