// The library as hosts run it, again and again and in odd places: the heap
// once a detector is gone, repeated detection (which ctest also runs under
// Valgrind's memcheck, where it must lose nothing), and a small stack.
#include <malloc.h>

#include "support/test_support.h"

#if defined(__SANITIZE_ADDRESS__)
#define UNDER_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define UNDER_ADDRESS_SANITIZER
#endif
#endif

TEST(Reliability, HeapIsAsBeforeOnceTheDetectorIsGone) {
#ifdef UNDER_ADDRESS_SANITIZER
  GTEST_SKIP() << "AddressSanitizer replaces malloc";
#endif
  std::string text;
  for (int n = 0; n < 256; ++n)
    text += "processor\t: " + std::to_string(n) + "\nphysical id\t: " + std::to_string(n % 2) +
            "\ncore id\t\t: " + std::to_string(n / 2 % 64) + "\ncpu cores\t: 64\n\n";
  // As a text, and as a file read by the scan.
  for (auto [kind, value] :
       {std::pair{XrCpuinfoRedirect::kText, text},
        {XrCpuinfoRedirect::kFile, testsupport::fixture("300-processors.cpuinfo")}}) {
    const XrCpuinfoRedirect redirect(kind, value);
    for (const char* generation : {"6.0", "6.1", "7.0", "default"}) {
      // Once before measuring: the C library keeps the last few freed blocks
      // of each size for the thread's next allocations, counted as in use.
      testsupport::makeDetector(generation, tzDebugNone, nullptr)->getProcData();
      const struct mallinfo2 before = mallinfo2();
      auto detector = testsupport::makeDetector(generation, tzDebugNone, nullptr);
      const int result = detector->getProcData();
      detector.reset();
      const struct mallinfo2 after = mallinfo2();
      EXPECT_EQ(result, 0);
      EXPECT_NEAR(double(after.uordblks + after.hblkhd), double(before.uordblks + before.hblkhd),
                  64)
          << generation << (kind == XrCpuinfoRedirect::kText ? " from a text" : " from a file");
    }
  }
}

// Every generation's whole detection of a few fixtures: results and counts.
static void* detectAll(void* all) {
  for (const char* file :
       {"two-socket-amd-smt-32", "vm-no-physical-id-4", "300-processors", "empty"}) {
    const XrCpuinfoRedirect redirect(XrCpuinfoRedirect::kFile,
                                     testsupport::fixture(file + std::string(".cpuinfo")));
    for (const char* generation : {"5.3", "6.0", "6.1", "7.0", "default"}) {
      auto detector = testsupport::makeDetector(generation, tzDebugNone, nullptr);
      const int result = detector->getProcData();
      *static_cast<std::string*>(all) +=
          std::to_string(result) + " " + testsupport::counts(*detector) + ", ";
      testsupport::unblockSegv();  // after a VMware probe that faulted
    }
  }
  return nullptr;
}

TEST(Reliability, RepeatedDetectionCountsAlikeEvenOnASmallStack) {
  std::string first, again, onSmallStack;
  detectAll(&first);
  detectAll(&again);
  EXPECT_EQ(again, first);
  // The per-call tables must not live on the caller's stack.
  pthread_attr_t attr;
  pthread_t thread;
  ASSERT_EQ(pthread_attr_init(&attr) + pthread_attr_setstacksize(&attr, 64 << 10), 0);
  ASSERT_EQ(pthread_create(&thread, &attr, detectAll, &onSmallStack), 0);
  pthread_join(thread, nullptr);
  EXPECT_EQ(onSmallStack, first);
}
