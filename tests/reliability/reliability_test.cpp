// The library as hosts run it, again and again and in odd places: the heap
// once a detector is gone, repeated detection (which ctest also runs under
// Valgrind's memcheck, where it must lose nothing), and a small stack.
#include <malloc.h>
#include <sched.h>
#include <setjmp.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <atomic>
#include <thread>

#include <xrprocdetector/detect.h>

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
       {std::pair{testsupport::CpuinfoMachine::kText, text},
        {testsupport::CpuinfoMachine::kFile, testsupport::fixture("300-processors.cpuinfo")}}) {
    const testsupport::CpuinfoMachine redirect(kind, value);
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
          << generation
          << (kind == testsupport::CpuinfoMachine::kText ? " from a text" : " from a file");
    }
  }
}

// Every generation's whole detection of a few fixtures: results and counts.
static void* detectAll(void* all) {
  for (const char* file :
       {"two-socket-amd-smt-32", "vm-no-physical-id-4", "300-processors", "empty"}) {
    const testsupport::CpuinfoMachine redirect(
        testsupport::CpuinfoMachine::kFile, testsupport::fixture(file + std::string(".cpuinfo")));
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
  ASSERT_EQ(pthread_attr_init(&attr), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&attr, 64 << 10), 0);
  ASSERT_EQ(pthread_create(&thread, &attr, detectAll, &onSmallStack), 0);
  pthread_join(thread, nullptr);
  EXPECT_EQ(onSmallStack, first);
}

// The default detector live, three times on one thread, where /proc/cpuinfo
// names no physical id (bound over it in a mount namespace of a child
// process): the CPUID strategy runs, and its VMware probe faults outside
// VMware. The process lives on, and after each call SIGSEGV is unblocked and
// the handler set before is still the one in place.
TEST(Reliability, RepeatedLiveDetectionGivesTheThreadBackAfterAFaultedProbe) {
  const int status = testsupport::inChild([] {
    const std::string text = "/tmp/reliability-cpuinfo-" + std::to_string(getpid());
    if (!testsupport::put(text,
                          "processor\t: 0\nflags\t\t: fpu\n\nprocessor\t: 1\nflags\t\t: fpu\n\n") ||
        unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount(text.c_str(), "/proc/cpuinfo", nullptr, MS_BIND, nullptr) != 0)
      return 77;
    unlink(text.c_str());
    const sighandler_t mine = [](int) { _exit(3); };
    signal(SIGSEGV, mine);
    for (int n = 0; n < 3; ++n) {
      const auto d = xrprocdetector::detect(xrprocdetector::Generation::kDefault);
      if (!d.counted || d.endedBy == xrprocdetector::Strategy::kCpuinfo) return 4;
      sigset_t mask;
      pthread_sigmask(SIG_SETMASK, nullptr, &mask);
      if (signal(SIGSEGV, mine) != mine || sigismember(&mask, SIGSEGV)) return 5;
    }
    return 0;
  });
  if (status == 77) GTEST_SKIP() << "needs root and a mount namespace of its own (unshare)";
  EXPECT_EQ(status, 0) << "3: a fault reached the host's handler; 4: not the CPUID strategy; 5: "
                          "the handler or the mask not given back; 128 + N: killed by signal N";
}

// Another thread that blocks every signal saves this machine 200 times,
// each save probing the VMware port; meanwhile this thread runs the default
// detector on a VMware guest's snapshot, whose replay is this thread's
// alone, and the probe (whose fault leaves SIGSEGV blocked here too), and
// then, as a host that handles its own faults (as runtimes with implicit
// null checks do), faults again and again. The probes run one at a time,
// take their own faults though the signal is blocked, find no VMware, and
// leave every other fault to the host's handler.
static sigjmp_buf hostRecovery;
static int hostFaults, hostHandled;

TEST(Reliability, SavesBesideProbesAndBesideAHostThatHandlesItsOwnFaults) {
  auto* const page = static_cast<volatile char*>(
      mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  struct sigaction host {};
  host.sa_sigaction = [](int, siginfo_t*, void*) { ++hostHandled, siglongjmp(hostRecovery, 1); };
  host.sa_flags = SA_SIGINFO;
  const auto vmware = *xrprocdetector::Source::snapshot(testsupport::fixture("snapshots/vmware-2"));
  for (const bool hostFaulting : {false, true}) {
    SCOPED_TRACE(hostFaulting ? "beside a host's faults" : "beside probes");
    if (hostFaulting) testsupport::unblockSegv(), sigaction(SIGSEGV, &host, nullptr);
    std::atomic<int> round{0}, wrong{0};  // saves or probes that failed or found VMware
    std::thread saver([&round, &wrong] {
      sigset_t all;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, nullptr);
      for (; round < 200; ++round) {
        const std::string dir = testing::TempDir() + "saved-" + std::to_string(getpid());
        wrong += !xrprocdetector::saveSnapshot(dir) ||
                 testsupport::readFile(dir + "/xrprocdetect.json").find("kdoor\": false") ==
                     std::string::npos;
        std::filesystem::remove_all(dir);
      }
    });
    while (round < 200) {
      if (hostFaulting && sigsetjmp(hostRecovery, 1) == 0) ++hostFaults, (void)*page;
      if (!hostFaulting)
        wrong += (xrprocdetector::detect(xrprocdetector::Generation::kDefault, vmware).vm !=
                  xrprocdetector::VmState::kVmware) +
                 XrProcDetectorLinux32(tzDebugNone, 0, nullptr, nullptr).IsInsideVMware();
    }
    saver.join();
    EXPECT_EQ(wrong, 0);
  }
  signal(SIGSEGV, SIG_DFL);
  EXPECT_EQ(hostHandled, hostFaults);
  EXPECT_GT(hostFaults, 1000);
}
