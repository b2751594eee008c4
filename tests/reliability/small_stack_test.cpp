// A host may call getProcData from a thread with a small stack: every
// generation must work on a 64 KB stack (the per-call tables live on the
// heap) and count exactly as on an ordinary thread.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cctype>
#include <cstdio>
#include <functional>
#include <string>

#include "xrprocdetector/xrprocdetector_legacy_53.h"
#include "xrprocdetector/xrprocdetector_legacy_6x.h"
#include "xrprocdetector/xrprocdetector_linux32.h"
#include "xrprocdetector/xrprocdetector_linux32_70.h"
#include "xrprocdetector/xrprocdetector_source.h"

namespace {

const std::string kData = XRPROCDETECTOR_TEST_DATA;

struct Result {
  int status = -99;
  int logical = -99;
  int physical = -99;
  int cores = -99;
  bool operator==(const Result& o) const {
    return status == o.status && logical == o.logical && physical == o.physical && cores == o.cores;
  }
};

std::ostream& operator<<(std::ostream& out, const Result& r) {
  return out << "{status " << r.status << ", logical " << r.logical << ", physical " << r.physical
             << ", cores " << r.cores << "}";
}

// Runs `work` on a new thread with a stack of `stackBytes`; false if the
// thread could not be made.
bool runOnThread(std::size_t stackBytes, const std::function<void()>& work) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  bool ok = pthread_attr_setstacksize(&attr, stackBytes) == 0;
  pthread_t thread;
  auto body = [](void* arg) -> void* {
    (*static_cast<const std::function<void()>*>(arg))();
    return nullptr;
  };
  ok = ok && pthread_create(&thread, &attr, body, const_cast<std::function<void()>*>(&work)) == 0;
  pthread_attr_destroy(&attr);
  return ok && pthread_join(thread, nullptr) == 0;
}

// One detection by `generation` ("5.3", "6.0", "6.1", "7.0", "default")
// over the fixture `fixture`, with its debug output at level 2 going to
// /dev/null. The redirect belongs to the thread that runs it.
Result detect(const std::string& generation, const std::string& fixture) {
  const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile, kData + "/" + fixture);
  FILE* out = std::fopen("/dev/null", "w");
  Result r;
  auto take = [&r](XrProcDetector& d) {
    r.status = d.getProcData();
    r.logical = d.logicalCount;
    r.physical = d.physicalCount;
    r.cores = d.coreCount;
  };
  if (generation == "5.3") {
    XrProcDetectorLegacy_53 d(tzDebugTrace, 0, tzProcInfo53, out, nullptr);
    take(d);
  } else if (generation == "6.0" || generation == "6.1") {
    XrProcDetectorLegacy_6x d(tzDebugTrace, 0, generation == "6.0" ? tzProcInfo60 : tzProcInfo61,
                              out, nullptr);
    take(d);
  } else if (generation == "7.0") {
    XrProcDetectorLinux32_70 d(tzDebugTrace, 0, tzProcInfo70, out, nullptr);
    take(d);
  } else {
    XrProcDetectorLinux32 d(tzDebugTrace, 0, tzProcInfo71, out, nullptr);
    take(d);
  }
  if (out != nullptr) std::fclose(out);
  return r;
}

struct StackCase {
  const char* generation;
  const char* fixture;
};

void PrintTo(const StackCase& c, std::ostream* out) {
  *out << c.generation << " on " << c.fixture;
}

class SmallStack : public ::testing::TestWithParam<StackCase> {};

TEST_P(SmallStack, DetectsOnA64KilobyteStackAsOnAnOrdinaryThread) {
  const auto& c = GetParam();
  // Each detection on a thread of its own: a default detection that reaches
  // the VMware probe leaves SIGSEGV blocked in its thread.
  Result ordinary;
  ASSERT_TRUE(runOnThread(8 << 20, [&] { ordinary = detect(c.generation, c.fixture); }));
  Result small;
  ASSERT_TRUE(runOnThread(64 << 10, [&] { small = detect(c.generation, c.fixture); }));
  EXPECT_EQ(small, ordinary);
  EXPECT_EQ(small.status, 0);
}

TEST(SmallStack, CountsTheFixtureAsItsRulesSay) {
  // Two packages of four cores, eight processors, no hyper-threading.
  Result r;
  ASSERT_TRUE(runOnThread(64 << 10, [&] { r = detect("7.0", "two-socket-8.cpuinfo"); }));
  EXPECT_EQ(r, (Result{0, 8, 2, 8}));
  ASSERT_TRUE(runOnThread(64 << 10, [&] { r = detect("6.0", "two-socket-8.cpuinfo"); }));
  // 6.0 counts the core ids 0 to 3 once over both packages.
  EXPECT_EQ(r, (Result{0, 8, 2, 4}));
  ASSERT_TRUE(runOnThread(64 << 10, [&] { r = detect("default", "two-socket-8.cpuinfo"); }));
  EXPECT_EQ(r, (Result{0, 8, 2, 8}));
}

INSTANTIATE_TEST_SUITE_P(Generations, SmallStack,
                         ::testing::Values(StackCase{"5.3", "two-socket-8.cpuinfo"},
                                           StackCase{"6.0", "two-socket-amd-smt-32.cpuinfo"},
                                           StackCase{"6.1", "two-socket-amd-smt-32.cpuinfo"},
                                           StackCase{"7.0", "two-socket-amd-smt-32.cpuinfo"},
                                           StackCase{"default", "two-socket-amd-smt-32.cpuinfo"},
                                           // No physical id: the default detector goes on to
                                           // CPUID, affinity pinning and the VMware probe.
                                           StackCase{"default", "vm-no-physical-id-4.cpuinfo"}),
                         [](const ::testing::TestParamInfo<StackCase>& info) {
                           std::string name =
                               std::string(info.param.generation) + "_" + info.param.fixture;
                           for (char& ch : name)
                             if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           return name;
                         });

}  // namespace
