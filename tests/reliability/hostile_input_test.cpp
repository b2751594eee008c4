// Hostile and huge /proc/cpuinfo texts: more of everything than the tables
// hold, a 10 MB word, a 50 MB file, NUL and non-ASCII bytes, no final line
// end, and numbers that do not fit. Every generation must count them as the
// rules say (or as this project chose where the rules leave it open), without
// writing past a table; the sanitizer builds run the same tests.
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/word_reader.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

struct Counts {
  int result;
  int logical;
  int physical;
  int cores;
};

bool operator==(const Counts& a, const Counts& b) {
  return a.result == b.result && a.logical == b.logical && a.physical == b.physical &&
         a.cores == b.cores;
}

std::ostream& operator<<(std::ostream& out, const Counts& c) {
  return out << "{result " << c.result << ", logical " << c.logical << ", physical " << c.physical
             << ", cores " << c.cores << "}";
}

template <class Detector>
Counts countsOf(const Detector& d, int result) {
  return {result, d.logicalCount, d.physicalCount, d.coreCount};
}

// Each generation's counts of the current source (an XrCpuinfoRedirect of
// the calling thread), written at level 2 to /dev/null.
struct AllGenerations {
  Counts v60, v61, v70, platformScan;
};

AllGenerations countAll() {
  FILE* out = std::fopen("/dev/null", "w");
  AllGenerations all{};
  XrProcDetectorLegacy_6x v60(tzDebugTrace, 0, tzProcInfo60, out, nullptr);
  all.v60 = countsOf(v60, v60.getProcData());
  XrProcDetectorLegacy_6x v61(tzDebugTrace, 0, tzProcInfo61, out, nullptr);
  all.v61 = countsOf(v61, v61.getProcData());
  XrProcDetectorLinux32_70 v70(tzDebugTrace, 0, tzProcInfo70, out, nullptr);
  all.v70 = countsOf(v70, v70.getProcData());
  // Only the default detector's /proc/cpuinfo scan: its getProcData would go
  // on to CPUID when the text names no physical id.
  XrProcDetectorLinux32 platform(tzDebugTrace, 0, tzProcInfo71, out, nullptr);
  all.platformScan = countsOf(platform, platform.platformProcInfo());
  if (out != nullptr) std::fclose(out);
  return all;
}

AllGenerations countText(const std::string& text) {
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText, text);
  return countAll();
}

// A temporary file holding `text`, removed at the end of the test.
class TextFile {
 public:
  explicit TextFile(const std::string& text) {
    char name[] = "/tmp/xrprocdetector-reliability-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) return;
    path_ = name;
    FILE* f = fdopen(fd, "w");
    ok_ = f != nullptr && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (f != nullptr) ok_ = std::fclose(f) == 0 && ok_;
  }
  ~TextFile() {
    if (!path_.empty()) std::remove(path_.c_str());
  }
  bool ok() const { return ok_; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  bool ok_ = false;
};

AllGenerations countFile(const std::string& text) {
  TextFile file(text);
  EXPECT_TRUE(file.ok());
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, file.path());
  return countAll();
}

// One processor block in the kernel's layout; empty values leave their line
// out.
std::string block(const std::string& processor, const std::string& physical,
                  const std::string& core, const std::string& cores) {
  std::string b = "processor\t: " + processor + "\nvendor_id\t: GenuineIntel\ncpu family\t: 6\n";
  if (!physical.empty()) b += "physical id\t: " + physical + "\n";
  if (!core.empty()) b += "core id\t\t: " + core + "\n";
  if (!cores.empty()) b += "cpu cores\t: " + cores + "\n";
  b += "flags\t\t: fpu vme de pse tsc msr pae mce cx8 apic cpuid constant_tsc\n\n";
  return b;
}

std::unique_ptr<xrLogicalTable> tableOf(const std::string& text) {
  xrprocdetector::detail::WordReader in{std::string_view(text)};
  return xrprocdetector::detail::scanCpuinfoTable(in);
}

// ---------------------------------------------------------------------------
// More than the tables hold

TEST(Limits, ProcessorNumbersBeyond256StopAddingAndKeepTheCurrentRecord) {
  // 300 processors in package 0 with 4 cores, except that the last block
  // names package 1 with 7 cores. The table keeps processors 0 to 255;
  // blocks 256 to 299 all go to record 255 (the record current when the
  // first of them came), so record 255 ends in package 1 with 7 cores.
  // Packages: "0" counts record 0's 4 cores, "1" record 255's 7.
  std::string text;
  for (int n = 0; n < 300; ++n) {
    text +=
        block(std::to_string(n), n == 299 ? "1" : "0", std::to_string(n % 8), n == 299 ? "7" : "4");
  }
  const auto all = countText(text);
  EXPECT_EQ(all.v70, (Counts{0, 256, 2, 11}));
  EXPECT_EQ(all.v61, (Counts{0, 256, 2, 11}));
  EXPECT_EQ(all.platformScan, (Counts{0, 256, 2, 11}));
  // 6.0: 256 distinct processor numbers kept, physical ids 0 and 1, core ids
  // 0 to 7.
  EXPECT_EQ(all.v60, (Counts{0, 256, 2, 8}));

  const auto table = tableOf(text);
  EXPECT_EQ(table->logical, 256);
  EXPECT_EQ(table->current, 255);
  EXPECT_EQ(table->records[255].processorNumber, "255");
  EXPECT_EQ(table->records[255].physicalId, "1");
  EXPECT_EQ(table->records[255].cpuCores, "7");
  EXPECT_EQ(table->records[254].physicalId, "0");
}

TEST(Limits, A257thProcessorNumberLeavesTheRecordOfARepeatedNumberCurrent) {
  // After 256 numbers, 5 comes again (record 5 becomes current); the new
  // number 999 is not added, so its values land in record 5.
  std::string text;
  for (int n = 0; n < 256; ++n)
    text += block(std::to_string(n), "0", "0", "4");
  text += block("5", "", "", "9");
  text += block("999", "7", "", "3");
  const auto table = tableOf(text);
  EXPECT_EQ(table->logical, 256);
  EXPECT_EQ(table->current, 5);
  EXPECT_EQ(table->records[5].cpuCores, "3");
  EXPECT_EQ(table->records[5].physicalId, "7");
  EXPECT_EQ(table->records[255].cpuCores, "4");
  for (int i = 0; i < xrLogicalTable::kCapacity; ++i)
    EXPECT_NE(table->records[i].processorNumber, "999") << "record " << i;
}

TEST(Limits, CoreIdsBeyond256UnderOneProcessorStopAdding) {
  std::string text = "processor\t: 0\nphysical id\t: 0\ncpu cores\t: 2\n";
  for (int k = 0; k < 300; ++k)
    text += "core id\t\t: " + std::to_string(k) + "\n";
  text += "core id\t\t: 5\n";
  const auto table = tableOf(text);
  EXPECT_EQ(table->records[0].coreIdCount, 256);
  EXPECT_EQ(table->records[0].coreIds[0], "0");
  EXPECT_EQ(table->records[0].coreIds[255], "255");
  EXPECT_EQ(table->records[1].coreIdCount, 0);
  const auto all = countText(text);
  EXPECT_EQ(all.v70, (Counts{0, 1, 1, 2}));
  // 6.0 counts distinct core ids over the file: 256 kept.
  EXPECT_EQ(all.v60, (Counts{0, 1, 1, 256}));
}

TEST(Limits, PhysicalIdsBeyond256AreDroppedAsPackages) {
  // 300 processors, each in a package of its own with 2 cores. Records stop
  // at 255, and blocks 256 to 299 move record 255 to package 299, which the
  // full package table drops; package 255 is then named by no record and
  // counts 0. Packages 0 to 254 count 2 each: 510.
  std::string text;
  for (int n = 0; n < 300; ++n)
    text += block(std::to_string(n), std::to_string(n), "0", "2");
  const auto all = countText(text);
  EXPECT_EQ(all.v70, (Counts{0, 256, 256, 510}));
  EXPECT_EQ(all.v61, (Counts{0, 256, 256, 510}));
  EXPECT_EQ(all.platformScan, (Counts{0, 256, 256, 510}));
  // 6.0: 256 distinct processor numbers and physical ids, one core id.
  EXPECT_EQ(all.v60, (Counts{0, 256, 256, 1}));

  const auto table = tableOf(text);
  EXPECT_EQ(table->packageCount, 256);
  EXPECT_EQ(table->packages[255].physicalId, "255");
  EXPECT_EQ(table->records[255].physicalId, "299");
}

// ---------------------------------------------------------------------------
// Huge inputs

struct HugeWordCase {
  const char* name;
  std::string text;
  Counts v70;
};

class HugeWord : public ::testing::TestWithParam<bool> {};

TEST_P(HugeWord, TenMegabyteWordsAnywhere) {
  const bool fromFile = GetParam();
  const std::string huge(10 * 1024 * 1024, 'a');
  const std::vector<HugeWordCase> cases = {
      // Passed over inside a flags line.
      {"skipped",
       "processor\t: 0\nflags\t\t: fpu " + huge + " sse\nphysical id\t: 0\ncpu cores\t: 4\n",
       {0, 1, 1, 4}},
      // As the processor number, twice: one record.
      {"processor number",
       "processor\t: " + huge + "\nphysical id\t: 3\ncpu cores\t: 2\nprocessor\t: " + huge + "\n",
       {0, 1, 1, 2}},
      // As the cpu-cores value: no digits, 0 cores.
      {"cpu cores", "processor\t: 0\nphysical id\t: 0\ncpu cores\t: " + huge + "\n", {0, 1, 1, 0}},
      // As the last word of the input, with no line end after it.
      {"last",
       "processor\t: 0\nphysical id\t: 0\ncpu cores\t: 4\nflags\t\t: " + huge,
       {0, 1, 1, 4}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto all = fromFile ? countFile(c.text) : countText(c.text);
    EXPECT_EQ(all.v70, c.v70);
  }
  // The word itself comes through whole.
  const auto table = tableOf(cases[1].text);
  EXPECT_EQ(table->logical, 1);
  EXPECT_EQ(table->records[0].processorNumber.size(), huge.size());
}

INSTANTIATE_TEST_SUITE_P(TextAndFile, HugeWord, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "File" : "Text";
                         });

TEST(Huge, FiftyMegabytesOfRepeatedBlocks) {
  // One package of 4 cores with 2 threads, written again and again: the
  // repeated processor numbers count once each.
  std::string machine;
  for (int n = 0; n < 8; ++n)
    machine += block(std::to_string(n), "0", std::to_string(n % 4), "4");
  std::string text;
  text.reserve(51 * 1024 * 1024);
  while (text.size() < 50u * 1024 * 1024)
    text += machine;
  const auto all = countFile(text);
  EXPECT_EQ(all.v70, (Counts{0, 8, 1, 4}));
  EXPECT_EQ(all.v61, (Counts{0, 8, 1, 4}));
  EXPECT_EQ(all.platformScan, (Counts{0, 8, 1, 4}));
  EXPECT_EQ(all.v60, (Counts{0, 8, 1, 4}));
}

// ---------------------------------------------------------------------------
// Odd bytes and odd ends

struct OddBytesCase {
  const char* name;
  std::string text;
  int logical60;                     // distinct processor texts (6.0, before zero becomes 1)
  std::vector<std::string> numbers;  // the processor texts of the table, in order
};

void PrintTo(const OddBytesCase& c, std::ostream* out) {
  *out << c.name;
}

class OddBytes : public ::testing::TestWithParam<OddBytesCase> {};

TEST_P(OddBytes, AreWordBytesUnlessTheyAreOneOfTheSixSeparators) {
  const auto& c = GetParam();
  const auto table = tableOf(c.text);
  ASSERT_EQ(table->logical, static_cast<int>(c.numbers.size()));
  for (std::size_t i = 0; i < c.numbers.size(); ++i)
    EXPECT_EQ(table->records[i].processorNumber, c.numbers[i]) << "record " << i;
  const auto all = countText(c.text);
  EXPECT_EQ(all.v60.logical, c.logical60 == 0 ? 1 : c.logical60);
  EXPECT_EQ(all.v70.logical, static_cast<int>(c.numbers.size()));
}

using namespace std::string_literals;

INSTANTIATE_TEST_SUITE_P(
    Cases, OddBytes,
    ::testing::Values(
        // NUL is a word byte: "0", "0\0" and "0\xFF" are three numbers.
        OddBytesCase{"nul_and_high_bytes",
                     "processor : 0\nprocessor : 0\0\nprocessor : 0\xFF\nprocessor : 0\n"s,
                     3,
                     {"0", "0\0"s, "0\xFF"}},
        // A NUL glued to the keyword makes another word: no trigger.
        OddBytesCase{"nul_after_keyword", "processor\0 : 1\n"s, 0, {}},
        // A no-break space (0xA0) or UTF-8 letter is not a separator.
        OddBytesCase{"no_break_space",
                     "processor\xA0: 1\nprocessor : \xA0"
                     "2\n",
                     1,
                     {"\xA0"
                      "2"}},
        OddBytesCase{"utf8", "processor : \xC3\xA9\n\xC3\xA9processor : 2\n", 1, {"\xC3\xA9"}},
        // Vertical tab, form feed and carriage return are separators.
        OddBytesCase{"other_separators", "processor\v:\f5\r\nprocessor\r:\r6", 2, {"5", "6"}}),
    [](const ::testing::TestParamInfo<OddBytesCase>& info) { return info.param.name; });

struct NoFinalLineEndCase {
  const char* name;
  std::string text;
  Counts v70;
  Counts v60;
};

void PrintTo(const NoFinalLineEndCase& c, std::ostream* out) {
  *out << c.name;
}

class NoFinalLineEnd : public ::testing::TestWithParam<NoFinalLineEndCase> {};

TEST_P(NoFinalLineEnd, TheLastWordCountsWholeFromATextAndFromAFile) {
  const auto& c = GetParam();
  for (bool fromFile : {false, true}) {
    SCOPED_TRACE(fromFile ? "file" : "text");
    const auto all = fromFile ? countFile(c.text) : countText(c.text);
    EXPECT_EQ(all.v70, c.v70);
    EXPECT_EQ(all.v60, c.v60);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, NoFinalLineEnd,
    ::testing::Values(NoFinalLineEndCase{"cpu_cores_last",
                                         "processor\t: 0\nphysical id\t: 0\ncpu cores\t: 12",
                                         {0, 1, 1, 12},
                                         {0, 1, 1, 1}},
                      NoFinalLineEndCase{"physical_id_last",
                                         "processor\t: 0\ncpu cores\t: 2\nphysical id\t: 9",
                                         {0, 1, 1, 2},
                                         {0, 1, 1, 1}},
                      // The last word "processor" finds no colon and no value: it becomes
                      // a processor number itself (a third one).
                      NoFinalLineEndCase{
                          "ends_after_processor",
                          "processor\t: 0\nprocessor\t: 1\nphysical id\t: 0\nprocessor",
                          {0, 3, 1, 0},
                          {0, 3, 1, 1}}),
    [](const ::testing::TestParamInfo<NoFinalLineEndCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------
// Numbers that do not fit

struct CpuCoresCase {
  const char* name;
  std::string value;
  int cores;  // strtol, clamped to LONG_MIN / LONG_MAX, then the low 32 bits
};

void PrintTo(const CpuCoresCase& c, std::ostream* out) {
  *out << c.name;
}

class HostileCpuCores : public ::testing::TestWithParam<CpuCoresCase> {};

TEST_P(HostileCpuCores, AreClampedThenNarrowedToThirtyTwoBits) {
  const auto& c = GetParam();
  const auto all = countText("processor\t: 0\nphysical id\t: 0\ncpu cores\t: " + c.value + "\n");
  EXPECT_EQ(all.v70.cores, c.cores);
  EXPECT_EQ(all.platformScan.cores, c.cores);
  EXPECT_EQ(all.v61.cores, c.cores == 0 ? 1 : c.cores);
}

INSTANTIATE_TEST_SUITE_P(Cases, HostileCpuCores,
                         ::testing::Values(
                             // LONG_MAX is 0x7FFF...FFFF: its low 32 bits are all ones.
                             CpuCoresCase{"beyond_long_max", "99999999999999999999", -1},
                             // LONG_MIN is 0x8000...0000: its low 32 bits are zero.
                             CpuCoresCase{"beyond_long_min", "-99999999999999999999", 0},
                             // 2^32 + 1.
                             CpuCoresCase{"two_to_the_32_plus_1", "4294967297", 1},
                             // 2^31 wraps to -2^31.
                             CpuCoresCase{"two_to_the_31", "2147483648", -2147483647 - 1},
                             CpuCoresCase{"digits_then_letters", "4x", 4},
                             CpuCoresCase{"hex_is_not_read", "0x10", 0},
                             CpuCoresCase{"signs", "-2", -2}),
                         [](const ::testing::TestParamInfo<CpuCoresCase>& info) {
                           return info.param.name;
                         });

TEST(HostileTotals, PackageCoresWrapAsTwosComplement) {
  // Each package counts 2^31 - 1 cores. Two of them: 2^32 - 2, which is -2
  // in 32 bits; three: 3 * 2^31 - 3 - 2^32 = 2^31 - 3.
  const std::string big = "2147483647";
  const std::string two = block("0", "0", "0", big) + block("1", "1", "0", big);
  const std::string three = two + block("2", "2", "0", big);
  EXPECT_EQ(countText(two).v70, (Counts{0, 2, 2, -2}));
  EXPECT_EQ(countText(two).v61, (Counts{0, 2, 2, -2}));
  EXPECT_EQ(countText(three).v70, (Counts{0, 3, 3, 2147483645}));
  // Values clamped to LONG_MAX count -1 each.
  const std::string clamped =
      block("0", "0", "0", "99999999999999999999") + block("1", "1", "0", "99999999999999999999");
  EXPECT_EQ(countText(clamped).platformScan, (Counts{0, 2, 2, -2}));
}

TEST(HostileTotals, ReportTheWrappedTotal) {
  const std::string big = "2147483647";
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kText,
                                   block("0", "0", "0", big) + block("1", "1", "0", big));
  char* buffer = nullptr;
  std::size_t length = 0;
  FILE* out = open_memstream(&buffer, &length);
  ASSERT_NE(out, nullptr);
  XrProcDetectorLinux32_70 detector(tzDebugSteps, 0, out, nullptr);
  EXPECT_EQ(detector.getProcData(), 0);
  std::fclose(out);
  const std::string report(buffer, length);
  std::free(buffer);
  EXPECT_NE(report.find("\tTotal cores = -2 \n"), std::string::npos) << report;
  // Fewer cores than logical processors: hyper-threading reads as enabled.
  EXPECT_EQ(detector.hyperThreadState, 2);
}

}  // namespace
