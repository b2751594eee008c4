// The detector object model: where tzPrint writes, hexify, the base class's
// operations, and the hyper-threading verdict with its summary.

#include "support/test_support.h"

TEST(TzPrint, RoutesByTheLevelsTheEchoAndTheStream) {
  std::string routes;  // each write as "out:TEXT|" or "stream:TEXT|", in order
  for (int object : {-1, 0, 1, 2, 3})
    for (int message : {0, 1, 2})
      for (unsigned echo : {0, 1})
        for (bool stream : {false, true}) {
          testsupport::OutputCapture capture;
          XrProcObject o(tz_debuglevel(object), echo, stream ? capture.stream() : nullptr, nullptr);
          o.tzPrint(tz_debuglevel(message), "m%d", 7);
          routes += "object " + std::to_string(object) + ", message " + std::to_string(message) +
                    ", echo " + std::to_string(echo) + (stream ? ", stream: " : ", no stream: ") +
                    capture.log + "\n";
        }
  EXPECT_EQ(routes, testsupport::expected("routing"));
}

TEST(Hexify, SeparateBufferInPlaceAndLengthZero) {
  // Each buffer below reads as its text up to the first zero byte, "|", and
  // its text after that byte.
  XrProcObject object(tzDebugNone, 0, nullptr, nullptr);
  char out[] = "??????????";
  EXPECT_EQ(object.hexify(out, "\x01\x2F\x80\xFF", 4), 8);  // 0x80 and above: natural digits
  EXPECT_EQ(out + std::string("|") + (out + 9), "012F80FF|?");
  EXPECT_EQ(object.hexify(out, "J", 1), 2);  // one byte: two digits, then the zero byte
  EXPECT_EQ(out + std::string("|") + (out + 3), "4A|F80FF");
  EXPECT_EQ(object.hexify(out, "zz", 0), 0);  // only the zero byte
  EXPECT_EQ(out + std::string("|") + (out + 1), "|A");
  // In place: from the last byte to the first; the zero byte goes first and
  // nothing is written after the last digit.
  char same[] = "\xAB\xC0\x7E####";
  EXPECT_EQ(object.hexify(same, same, 3), 6);
  EXPECT_EQ(same + std::string("|") + (same + 1), "|BC07E#");
}

TEST(Detector, TheBaseClassCountsOnlyWhatTheSystemSays) {
  testsupport::OutputCapture capture;
  XrProcDetector base(tzDebugSteps, 0, capture.stream(), nullptr);
  auto sixOne = testsupport::makeDetector("6.1", tzDebugSteps, capture.stream());
  EXPECT_EQ(base.getProcData(), -1);
  EXPECT_EQ(testsupport::counts(base), "65535 65535 65535");
  EXPECT_EQ(base.bosGetOnlineProcessorCount(), sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_EQ(base.platformVM(), 0);
  // All three counts from bosGetLogicalProcessorCount, which 6.x has too.
  EXPECT_EQ(base.platformProcInfo(), 0);
  EXPECT_EQ(sixOne->platformProcInfo(), 0);
  EXPECT_EQ(testsupport::counts(base) + " | " + testsupport::counts(*sixOne) + "\n" + capture.text,
            testsupport::expected("base"));
}

TEST(Verdict, StoredByPlatformHyperThreadingAndOnlyWrittenByPrintSummary) {
  // The counts of tables/verdicts.txt.
  std::string reports;
  for (const auto& row : testsupport::table("tables/verdicts.txt")) {
    testsupport::OutputCapture capture;
    XrProcDetector d(tzDebugSteps, 0, capture.stream(), nullptr);
    d.logicalCount = std::stoi(row.at(0)), d.coreCount = std::stoi(row.at(1));
    d.physicalCount = std::stoi(row.at(2));
    d.hyperThreadState = 3;  // as the CPUID estimate may leave it
    EXPECT_EQ(d.printSummary(), 0);
    EXPECT_EQ(d.hyperThreadState, 3);
    const std::string summary = capture.text;
    EXPECT_EQ(d.platformHyperThreading(), 0);
    EXPECT_EQ(capture.text, summary + summary);
    reports += "hyperThreadState " + std::to_string(d.hyperThreadState) + "\n" + summary;
  }
  EXPECT_EQ(reports, testsupport::expected("verdicts"));
}
