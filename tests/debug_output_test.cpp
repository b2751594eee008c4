// The detector object model: debug routing, hexify, construction defaults,
// the operating system's counts and the generic detection sequence.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector.h"
#include "xrprocdetector/xrprocdetector_legacy_53.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"

namespace {

using testsupport::OutputCapture;

struct RoutingCase {
  int objectLevel;
  unsigned echo;
  bool withStream;
  int messageLevel;
  const char* expectedLog;  // "out:" and "stream:" runs in the order written
};

void PrintTo(const RoutingCase& c, std::ostream* os) {
  *os << "object " << c.objectLevel << " echo " << c.echo << (c.withStream ? " stream" : "")
      << " message " << c.messageLevel;
}

class TzPrintRouting : public ::testing::TestWithParam<RoutingCase> {};

TEST_P(TzPrintRouting, WritesTheMessageWhereTheLevelsSay) {
  const RoutingCase& c = GetParam();
  OutputCapture capture;
  XrProcObject object(static_cast<tz_debuglevel>(c.objectLevel), c.echo,
                      c.withStream ? capture.stream() : nullptr, nullptr);
  object.tzPrint(static_cast<tz_debuglevel>(c.messageLevel), "m%d\n", 7);
  EXPECT_EQ(capture.log(), c.expectedLog);
}

INSTANTIATE_TEST_SUITE_P(
    Levels, TzPrintRouting,
    ::testing::Values(
        // Level-0 messages: standard output always, then the stream unless
        // the object's level is negative.
        RoutingCase{0, 0, true, 0, "out:m7\n|stream:m7\n|"},
        RoutingCase{-1, 0, true, 0, "out:m7\n|"}, RoutingCase{-1, 1, true, 0, "out:m7\n|"},
        RoutingCase{2, 0, false, 0, "out:m7\n|"},
        // Level 1: to the stream when the object's level reaches it; to
        // standard output only with echo, and before the stream.
        RoutingCase{1, 0, true, 1, "stream:m7\n|"},
        RoutingCase{1, 1, true, 1, "out:m7\n|stream:m7\n|"},
        RoutingCase{1, 1, false, 1, "out:m7\n|"}, RoutingCase{0, 1, true, 1, ""},
        RoutingCase{-1, 1, true, 1, ""}, RoutingCase{2, 0, true, 1, "stream:m7\n|"},
        RoutingCase{7, 1, true, 1, "out:m7\n|stream:m7\n|"},
        // Level 2: only objects of level 2 or more.
        RoutingCase{1, 1, true, 2, ""}, RoutingCase{2, 1, false, 2, "out:m7\n|"},
        RoutingCase{2, 0, true, 2, "stream:m7\n|"}, RoutingCase{3, 0, true, 2, "stream:m7\n|"}));

TEST(TzPrint, AddsNothingToTheText) {
  OutputCapture capture;
  XrProcObject object(tzDebugSteps, 0, capture.stream(), nullptr);
  object.tzPrint(tzDebugSteps, "no newline");
  object.tzPrint(tzDebugSteps, "%s|%i", "a", -3);
  EXPECT_EQ(capture.streamText(), "no newlinea|-3");
}

TEST(Hexify, SeparateBuffers) {
  XrProcObject object(tzDebugNone, 0, nullptr, nullptr);
  const char in[] = {0x01, 0x2F, static_cast<char>(0x80), static_cast<char>(0xFF)};
  char out[16];
  std::memset(out, '?', sizeof out);
  EXPECT_EQ(object.hexify(out, in, 2), 4);
  EXPECT_EQ(std::string(out, 5), std::string("012F\0", 5));
  EXPECT_EQ(out[5], '?');
  // Bytes of 0x80 and above give their natural digits.
  EXPECT_EQ(object.hexify(out, in, 4), 8);
  EXPECT_STREQ(out, "012F80FF");
}

TEST(Hexify, LengthZeroWritesOnlyTheZeroByte) {
  XrProcObject object(tzDebugNone, 0, nullptr, nullptr);
  char out[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(object.hexify(out, "zz", 0), 0);
  EXPECT_EQ(std::string(out, 4), std::string("\0bcd", 4));
  char same[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(object.hexify(same, same, 0), 0);
  EXPECT_EQ(std::string(same, 4), std::string("\0bcd", 4));
}

TEST(Hexify, InPlaceExpandsBackwardsAndPutsTheZeroFirst) {
  XrProcObject object(tzDebugNone, 0, nullptr, nullptr);
  char buffer[6] = {0x01, 0x2F, '?', '?', '!', '!'};
  EXPECT_EQ(object.hexify(buffer, buffer, 2), 4);
  EXPECT_EQ(std::string(buffer, 6), std::string("\0"
                                                "12F!!",
                                                6));
  char wide[8] = {static_cast<char>(0xAB), static_cast<char>(0xC0), 0x7E, '#', '#', '#', '#', '#'};
  EXPECT_EQ(object.hexify(wide, wide, 3), 6);
  EXPECT_EQ(std::string(wide, 7), std::string("\0"
                                              "BC07E#",
                                              7));
}

TEST(Detector, ConstructorsSetTheDefaults) {
  char text[] = "host";
  FILE* stream = stderr;
  XrProcDetector a(tzDebugTrace, 1, stream, text);
  XrProcDetector b(static_cast<tz_debuglevel>(-4), 0, tzProcInfo60, nullptr, nullptr);
  for (const XrProcDetector* d : {&a, &b}) {
    EXPECT_EQ(d->logicalCount, 65535);
    EXPECT_EQ(d->physicalCount, 65535);
    EXPECT_EQ(d->spareCount1, 65535);
    EXPECT_EQ(d->spareCount2, 65535);
    EXPECT_EQ(d->coreCount, 65535);
    EXPECT_EQ(d->hyperThreadState, 15);
    EXPECT_EQ(d->vmState, 15);
  }
  EXPECT_EQ(a.procInfoIndex, tzProcInfo71);
  EXPECT_EQ(a.debugLevel, tzDebugTrace);
  EXPECT_EQ(a.echoToStdout, 1u);
  EXPECT_EQ(a.debugStream, stream);
  EXPECT_EQ(a.callerText, text);
  EXPECT_EQ(b.procInfoIndex, tzProcInfo60);
  EXPECT_EQ(b.debugLevel, -4);
}

TEST(Detector, EveryClassTakesBothConstructorsAndDeletesThroughTheBase) {
  std::unique_ptr<XrProcDetector> detectors[] = {
      std::make_unique<XrProcDetectorLegacy_53>(tzDebugNone, 0, nullptr, nullptr),
      std::make_unique<XrProcDetectorLegacy_6x>(tzDebugNone, 0, tzProcInfo60, nullptr, nullptr),
      std::make_unique<XrProcDetectorLinux32>(tzDebugNone, 0, tzProcInfo70, nullptr, nullptr),
      std::make_unique<XrProcDetectorLinux32_70>(tzDebugNone, 0, nullptr, nullptr),
  };
  EXPECT_EQ(detectors[1]->procInfoIndex, tzProcInfo60);
  EXPECT_EQ(detectors[2]->procInfoIndex, tzProcInfo70);
  EXPECT_EQ(detectors[3]->procInfoIndex, tzProcInfo71);
}

TEST(Detector, TheBaseClassDetectsNothing) {
  OutputCapture capture;
  XrProcDetector detector(tzDebugTrace, 1, capture.stream(), nullptr);
  EXPECT_EQ(detector.getProcData(), -1);
  EXPECT_EQ(detector.platformVM(), 0);
  EXPECT_EQ(detector.logicalCount, 65535);
  EXPECT_EQ(detector.physicalCount, 65535);
  EXPECT_EQ(detector.coreCount, 65535);
  EXPECT_EQ(capture.log(), "");
}

TEST(Detector, OperatingSystemCountsWriteConfiguredThenOnline) {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  const std::string expected = "Number of configured processors: " + std::to_string(configured) +
                               "\nNumber of online processors: " + std::to_string(online) + "\n";
  OutputCapture capture;
  XrProcDetector detector(tzDebugSteps, 0, capture.stream(), nullptr);
  EXPECT_EQ(detector.bosGetLogicalProcessorCount(), configured);
  EXPECT_EQ(detector.bosGetOnlineProcessorCount(), online);
  EXPECT_EQ(capture.streamText(), expected + expected);
}

TEST(Detector, BasePlatformProcInfoUsesTheOverriddenCount) {
  struct Fixed : XrProcDetector {
    using XrProcDetector::XrProcDetector;
    int bosGetLogicalProcessorCount() override { return 12; }
  } detector(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_EQ(detector.platformProcInfo(), 0);
  EXPECT_EQ(detector.logicalCount, 12);
  EXPECT_EQ(detector.physicalCount, 12);
  EXPECT_EQ(detector.coreCount, 12);
}

// Records which of the sequence's operations ran.
struct SequenceProbe : XrProcDetector {
  using XrProcDetector::XrProcDetector;
  int procInfoResult = 0;
  std::string calls;
  int platformProcInfo() override {
    calls += "info,";
    return procInfoResult;
  }
  int platformHyperThreading() override {
    calls += "ht,";
    return -7;  // ignored by the sequence
  }
  int platformVM() override {
    calls += "vm,";
    return -9;  // ignored by the sequence
  }
};

TEST(GetUnixProcData, StopsAtAFailedInfoStep) {
  SequenceProbe detector(tzDebugSteps, 0, nullptr, nullptr);
  detector.procInfoResult = -1;
  EXPECT_EQ(detector.getUnixProcData(), -1);
  EXPECT_EQ(detector.calls, "info,");
  EXPECT_EQ(detector.hyperThreadState, 15);
  EXPECT_EQ(detector.vmState, 15);
}

TEST(GetUnixProcData, RunsAllThreeStepsAndIgnoresTheirResults) {
  for (int result : {0, 3}) {
    SequenceProbe detector(tzDebugSteps, 0, nullptr, nullptr);
    detector.procInfoResult = result;
    EXPECT_EQ(detector.getUnixProcData(), 0);
    EXPECT_EQ(detector.calls, "info,ht,vm,");
  }
}

TEST(Factory, HandsOutASilentDefaultDetector) {
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  ASSERT_NE(detector, nullptr);
  EXPECT_NE(dynamic_cast<XrProcDetectorLinux32*>(detector.get()), nullptr);
  EXPECT_EQ(detector->debugLevel, tzDebugNone);
  EXPECT_EQ(detector->echoToStdout, 0u);
  EXPECT_EQ(detector->debugStream, nullptr);
  EXPECT_EQ(detector->callerText, nullptr);
  EXPECT_EQ(detector->procInfoIndex, tzProcInfo71);
}

}  // namespace
