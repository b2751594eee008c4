// The real library on this machine: the CPUID estimate with the real
// instructions, affinity calls and VMware probe, the factory's detector, and
// scans of a /proc/cpuinfo that cannot be opened.
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include <xrprocdetector/detect.h>

#include "support/test_support.h"

TEST(RealMachine, CpuidEstimateAndVMwareProbe) {
  signal(SIGSEGV, [](int) { _exit(3); });  // a fault that the probe did not take
  XrProcDetectorLinux32 detector(tzDebugNone, 0, nullptr, nullptr);
  EXPECT_EQ(detector.getCPUIDProcData(), 0);
  testsupport::unblockSegv();  // its affinity given back: TheCallersOwnAffinityIsReadAndGivenBack
  EXPECT_EQ(detector.logicalCount, sysconf(_SC_NPROCESSORS_CONF));
  struct sigaction now {};
  sigaction(SIGSEGV, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL);  // not the handler in place before
}

// The calling thread's own affinity, narrower than process 1's, is what is
// read: for the usable processors, a snapshot's affinity, and what the
// detectors give back after pinning.
TEST(RealMachine, TheCallersOwnAffinityIsReadAndGivenBack) {
  cpu_set_t all, one, after;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  ASSERT_EQ(sched_getaffinity(1, sizeof one, &one), 0);
  if (CPU_COUNT(&one) < 2) GTEST_SKIP() << "process 1 may use fewer than two processors";
  int last = CPU_SETSIZE - 1;
  while (!CPU_ISSET(last, &one))
    --last;
  CPU_ZERO(&one);
  CPU_SET(last, &one);
  ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
  using namespace xrprocdetector;
  EXPECT_EQ(kernelTopology().usableProcessors, 1);
  const std::string saved = testing::TempDir() + "affinity-" + std::to_string(getpid());
  EXPECT_TRUE(saveSnapshot(saved));
  const auto snapshot = Source::snapshot(saved);
  EXPECT_EQ(snapshot ? kernelTopology(*snapshot).usableProcessors : 0, 1);
  std::filesystem::remove_all(saved);
  detect(Generation::kDefault);
  XrProcDetectorLinux32(tzDebugNone, 0, nullptr, nullptr).getCPUIDProcData();
  testsupport::unblockSegv();
  ASSERT_EQ(sched_getaffinity(0, sizeof after, &after), 0);
  sched_setaffinity(0, sizeof all, &all);
  EXPECT_TRUE(CPU_EQUAL(&one, &after));
}

TEST(RealMachine, FactoryHandsOutASilentDefaultDetector) {
  testsupport::OutputCapture capture;
  std::unique_ptr<XrProcDetector> detector(getOSProcDetector());
  EXPECT_NE(dynamic_cast<XrProcDetectorLinux32*>(detector.get()), nullptr);
  EXPECT_EQ(detector->procInfoIndex, tzProcInfo71);
  EXPECT_EQ(detector->getProcData(), 0);
  EXPECT_EQ(detector->printSummary(), 0);
  testsupport::unblockSegv();
  EXPECT_EQ(capture.log, "");
  EXPECT_GT(detector->logicalCount, 0);
}

TEST(RealMachine, ScansOfACpuinfoThatCannotBeOpenedNeverReturn) {
  std::vector<pid_t> children;  // one for each generation that scans
  for (const char* generation : {"6.0", "6.1", "7.0", "default"}) {
    children.push_back(fork());
    if (children.back() == 0) {
      const testsupport::CpuinfoMachine redirect(testsupport::CpuinfoMachine::kFile,
                                                 testsupport::fixture("missing"));
      testsupport::makeDetector(generation, tzDebugNone, nullptr)->getProcData();
      _exit(0);
    }
  }
  usleep(500 * 1000);
  for (pid_t child : children) {
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << "a scan returned";
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
}

// A budget reads what topology() reads, from copies on several threads at
// once alike.
TEST(RealMachine, ABudgetReadsWhatTheTopologyReads) {
  using namespace xrprocdetector;
  std::string error;
  const std::optional<ProcessorBudget> budget = ProcessorBudget::open(&error);
  ASSERT_TRUE(budget) << error;
  const Topology t = topology();
  const Budget b = ProcessorBudget(*budget).read();
  EXPECT_TRUE(b.usable == t.usable && b.cpuQuota == t.cpuQuota && b.error.empty() &&
              b.effectiveProcessors == t.effectiveProcessors);
  std::atomic<int> differ{0};
  const auto readMany = [&] {
    for (int n = 0; n < 1000; ++n)
      differ += changed(b, ProcessorBudget(*budget).read()) ? 1 : 0;
  };
  std::thread one(readMany), two(readMany), three(readMany);
  readMany();
  for (std::thread* thread : {&one, &two, &three})
    thread->join();
  EXPECT_EQ(differ, 0);
}

using testsupport::inChild;
using testsupport::put;

// A group removed under a budget (the process moved out, the group
// removed, before the budget looks where the process is) is an error that
// names the file, never the old limits presented as fresh.
TEST(RealMachine, ABudgetWhoseGroupIsRemovedNamesTheFile) {
  const std::string group = "/sys/fs/cgroup/cpu/xrprocdetect-vanish-" + std::to_string(getpid());
  if (::mkdir(group.c_str(), 0755) != 0) GTEST_SKIP() << "no writable cgroup v1 cpu hierarchy";
  put(group + "/cpu.cfs_quota_us", "50000");
  put(group + "/cgroup.procs", std::to_string(getpid()));
  auto budget = xrprocdetector::ProcessorBudget::open();
  const xrprocdetector::Budget before = budget ? budget->read() : xrprocdetector::Budget();
  put("/sys/fs/cgroup/cpu/cgroup.procs", std::to_string(getpid()));
  ::rmdir(group.c_str());
  const xrprocdetector::Budget after = budget ? budget->read() : xrprocdetector::Budget();
  EXPECT_EQ(before.cpuQuota, 0.5);
  EXPECT_EQ(after.error.message().find(group + "/cpu.cfs_quota_us: cannot read"), 0u)
      << after.error.message();
  // The group made again under its name, the process put back: the read
  // after the failure finds the files anew, and the error lasts no longer.
  ::mkdir(group.c_str(), 0755);
  put(group + "/cpu.cfs_quota_us", "25000");
  put(group + "/cgroup.procs", std::to_string(getpid()));
  const xrprocdetector::Budget again = budget ? budget->read() : xrprocdetector::Budget();
  put("/sys/fs/cgroup/cpu/cgroup.procs", std::to_string(getpid()));
  ::rmdir(group.c_str());
  EXPECT_TRUE(again.error.empty() && again.cpuQuota == 0.25) << again.error.message();
}

// A budget opened before fork() belongs, in the child, to the child: moved
// into a group of half a processor, the child's first read says so.
TEST(RealMachine, ABudgetFollowsItsProcessIntoAForkedChild) {
  const std::string group = "/sys/fs/cgroup/cpu/xrprocdetect-child-" + std::to_string(getpid());
  if (::mkdir(group.c_str(), 0755) != 0) GTEST_SKIP() << "no writable cgroup v1 cpu hierarchy";
  put(group + "/cpu.cfs_quota_us", "50000");
  auto budget = xrprocdetector::ProcessorBudget::open();
  ASSERT_TRUE(budget && budget->read().error.empty());
  const int status = inChild([&] {
    put(group + "/cgroup.procs", std::to_string(getpid()));
    const xrprocdetector::Budget b = budget->read();
    return b.error.empty() && b.cpuQuota == 0.5 && b.effectiveProcessors == 1 ? 0 : 1;
  });
  ::rmdir(group.c_str());
  EXPECT_EQ(status, 0);
}

// With cgroup v2, a group's cpu.max appears only once its parent enables
// the cpu controller, which systemd does when a unit is first given a
// quota: a budget opened before finds it within 50 ms. Played in a child's
// own mount namespace: a v2 hierarchy of plain files on a tmpfs, named by
// files mounted over the child's /proc/self/mountinfo and cgroup.
TEST(RealMachine, ABudgetFindsACpuMaxThatAppearsLater) {
  const int status = inChild([] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("none", "/tmp", "tmpfs", 0, nullptr) != 0 || ::mkdir("/tmp/v2", 0755) != 0 ||
        ::mkdir("/tmp/v2/unit", 0755) != 0 ||
        !put("/tmp/mountinfo", "30 24 0:30 / /tmp/v2 rw - cgroup2 cgroup2 rw\n") ||
        !put("/tmp/cgroup", "0::/unit\n") ||
        ::mount("/tmp/mountinfo", "/proc/self/mountinfo", nullptr, MS_BIND, nullptr) != 0 ||
        ::mount("/tmp/cgroup", "/proc/self/cgroup", nullptr, MS_BIND, nullptr) != 0)
      return 77;
    auto budget = xrprocdetector::ProcessorBudget::open();
    const xrprocdetector::Budget before = budget ? budget->read() : xrprocdetector::Budget();
    put("/tmp/v2/unit/cpu.max", "50000 100000\n");
    usleep(60 * 1000);
    const xrprocdetector::Budget after = budget ? budget->read() : xrprocdetector::Budget();
    return budget && !before.cpuQuota && after.cpuQuota == 0.5 && after.error.empty() ? 0 : 1;
  });
  if (status == 77) GTEST_SKIP() << "needs root and a mount namespace of its own (unshare)";
  EXPECT_EQ(status, 0);
}

// A crash reporter that the host installs while another thread detects stays
// in place: a detection gives SIGSEGV's disposition back only where the
// guard's own handler is still there. Each round installs one while
// detections (the default detector's probe, answered from a snapshot) run
// back to back, and looks once they have stopped.
TEST(RealMachine, AHandlerInstalledDuringADetectionStays) {
  using namespace xrprocdetector;
  const std::optional<Source> source = Source::snapshot(testsupport::fixture("snapshots/vmware-2"));
  void (*const handlers[])(int) = {[](int) { _exit(3); }, [](int) { _exit(4); }};
  int lost = 0;
  for (int round = 0; round < 200; ++round) {
    std::atomic<long> detections{0};
    std::thread detecting([&] {
      for (; detections < 3; ++detections)
        detect(Generation::kDefault, *source);
    });
    while (detections < 1)
      sched_yield();
    const sighandler_t mine = handlers[round % 2];
    signal(SIGSEGV, mine);
    detecting.join();
    lost += signal(SIGSEGV, mine) != mine ? 1 : 0;  // put back, once read, as it was
  }
  signal(SIGSEGV, SIG_DFL);
  EXPECT_EQ(lost, 0) << "of 200 handlers";
}

// A child forked while another thread detects can detect: the fork never
// leaves it a probe lock held by a thread it does not have. A child that
// has not ended within 20 s hangs, and its alarm ends it.
TEST(RealMachine, AChildForkedDuringADetectionDetects) {
  using namespace xrprocdetector;
  std::atomic<bool> stop{false};
  std::thread detecting([&] {
    while (!stop)
      detect(Generation::kDefault);
  });
  int wrong = 0;
  for (int round = 0; round < 10; ++round) {
    const int status = inChild([] {
      alarm(20);  // SIGALRM, whose default action ends the child, once it hangs
      return detect(Generation::kDefault).counted ? 0 : 1;
    });
    wrong += status == 0 ? 0 : 1;
  }
  stop = true;
  detecting.join();
  EXPECT_EQ(wrong, 0) << "of 10 children hung or failed";
}
