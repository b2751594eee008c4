// The CPUID estimate: pinning, the arithmetic, the classification and every
// line it writes, on scripted processors and a scripted VMware port.
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

#include <string>

#include "support/scripted_hardware.h"
#include "support/test_support.h"
#include "xrprocdetector/xrprocdetector_linux32.h"

namespace {

using scripted::Backdoor;
using scripted::vendor;
using testsupport::OutputCapture;

constexpr std::uint32_t kHyperThreading = 0x10000000;

// A default detector on a machine of `total` configured processors.
struct Machine : XrProcDetectorLinux32 {
  Machine(int processors, FILE* stream)
      : XrProcDetectorLinux32(tzDebugSteps, 0, stream, nullptr), total(processors) {}
  int bosGetLogicalProcessorCount() override { return total; }
  int total;
};

using CpuidEstimate = testsupport::ThreadStateTest;

struct EstimateCase {
  const char* name;
  int total;
  std::vector<scripted::Answer> cpu;
  Backdoor backdoor;
  int physical, cores, logical, hyperThreadState, vmState;
  const char* lines;  // after the two pinning lines
};

void PrintTo(const EstimateCase& c, std::ostream* os) {
  *os << c.name;
}

class Classification : public CpuidEstimate, public ::testing::WithParamInterface<EstimateCase> {};

TEST_P(Classification, CountsStatesAndLines) {
  const EstimateCase& c = GetParam();
  scripted::setCpuid(c.cpu);
  scripted::setBackdoor(c.backdoor);
  OutputCapture capture;
  Machine machine(c.total, capture.stream());
  EXPECT_EQ(machine.getCPUIDProcData(), 0);
  EXPECT_EQ(machine.physicalCount, c.physical);
  EXPECT_EQ(machine.coreCount, c.cores);
  EXPECT_EQ(machine.logicalCount, c.logical);
  EXPECT_EQ(machine.hyperThreadState, c.hyperThreadState);
  EXPECT_EQ(machine.vmState, c.vmState);
  const std::string pinned =
      "Processor found with CPUID level of 4 or higher.\n"
      "Maximum CPUID level reported is " +
      std::to_string(c.cpu[0].regs.eax) + ".\n";
  EXPECT_EQ(capture.streamText(), pinned + c.lines);
  EXPECT_EQ(scripted::backdoorQueries(), 1);
  EXPECT_TRUE(affinityIsSaved());
}

const scripted::Answer kIntel10 = vendor(10, "GenuineIntel");
scripted::Answer leaf1(std::uint32_t perPackage, std::uint32_t edx) {
  return {1, 0, {0, perPackage << 16, 0, edx}};
}
scripted::Answer leaf4(std::uint32_t coresPerPackage) {
  return {4, 0, {(coresPerPackage - 1) << 26, 0, 0, 0}};
}

INSTANTIATE_TEST_SUITE_P(
    Machines, Classification,
    ::testing::Values(
        // 8 logical, 4 per package, 4 cores each: 2 packages, 8 cores, so
        // twice the cores (16) is 8 more than the logical count.
        EstimateCase{"HyperThreadingWithDisabledProcessors",
                     8,
                     {kIntel10, leaf1(4, kHyperThreading), leaf4(4)},
                     Backdoor::kFault,
                     2,
                     8,
                     8,
                     2,
                     0,
                     "Total Logical: 8\nLogical per Physical: 4\nTotal Physical: 2\n"
                     "Chip is core capable.  Cores per physical = 4\ncorecount is 8.\n"
                     "\t2 Physical CPU(s) detected\n\t8 Physical Core(s) detected \n"
                     "\t8 Logical Processor(s) detected \nIt is not on VM ....\n"
                     "Hyper-Threaded chip detected\n"
                     "Hyper-Threading enabled, but 8 of logical processors disabled.\n"
                     " Physical Count = 2     Core Count = 4      Logical Processor = 8 \n"},
        // Leaf 11 says one core per package: 16 logical on 1 core is more
        // than twice; the last line shows the per-package count, 1.
        EstimateCase{
            "MoreThanTwiceTheCores",
            16,
            {vendor(0x16, "GenuineIntel"), leaf1(16, kHyperThreading), {11, 0, {1, 2, 0, 0}}},
            Backdoor::kFault,
            1,
            1,
            16,
            3,
            0,
            "Total Logical: 16\nLogical per Physical: 16\nTotal Physical: 1\n"
            "Leaf11 - numLogical: 2, numThreads: 2\n"
            "Chip is core capable.  Cores per physical = 1\ncorecount is 1.\n"
            "\t1 Physical CPU(s) detected\n\t1 Physical Core(s) detected \n"
            "\t16 Logical Processor(s) detected \nIt is not on VM ....\n"
            "Hyper-Threaded chip detected\n"
            "Hyper-Threading enabled, but logical count is more than 2x number of "
            "cores.\n"
            " Physical Count = 1     Core Count = 1      Logical Processor = 16 \n"},
        // Exactly twice: plain "enabled". 8 logical, 4 per package, 2 cores.
        EstimateCase{"ExactlyTwice",
                     8,
                     {kIntel10, leaf1(4, kHyperThreading), leaf4(2)},
                     Backdoor::kFault,
                     2,
                     4,
                     8,
                     2,
                     0,
                     "Total Logical: 8\nLogical per Physical: 4\nTotal Physical: 2\n"
                     "Chip is core capable.  Cores per physical = 2\ncorecount is 4.\n"
                     "\t2 Physical CPU(s) detected\n\t4 Physical Core(s) detected \n"
                     "\t8 Logical Processor(s) detected \nIt is not on VM ....\n"
                     "Hyper-Threaded chip detected\nHyper-Threading enabled\n"
                     " Physical Count = 2     Core Count = 2      Logical Processor = 8 \n"},
        // No hyper-threading flag: state 0 and no hyper-threading line. 12
        // logical with 8 per package is one package (remainder dropped).
        EstimateCase{"FlagClear",
                     12,
                     {kIntel10, leaf1(8, 0), leaf4(8)},
                     Backdoor::kOtherAnswer,
                     1,
                     8,
                     12,
                     0,
                     0,
                     "Total Logical: 12\nLogical per Physical: 8\nTotal Physical: 1\n"
                     "Chip is core capable.  Cores per physical = 8\ncorecount is 8.\n"
                     "\t1 Physical CPU(s) detected\n\t8 Physical Core(s) detected \n"
                     "\t12 Logical Processor(s) detected \nIt is not on VM ....\n"
                     " Physical Count = 1     Core Count = 8      Logical Processor = 12 \n"},
        // 8 logical, 16 per package: one package, not zero.
        EstimateCase{"FewerLogicalThanPerPackage",
                     8,
                     {kIntel10, leaf1(16, 0), leaf4(8)},
                     Backdoor::kFault,
                     1,
                     8,
                     8,
                     0,
                     0,
                     "Total Logical: 8\nLogical per Physical: 16\nTotal Physical: 1\n"
                     "Chip is core capable.  Cores per physical = 8\ncorecount is 8.\n"
                     "\t1 Physical CPU(s) detected\n\t8 Physical Core(s) detected \n"
                     "\t8 Logical Processor(s) detected \nIt is not on VM ....\n"
                     " Physical Count = 1     Core Count = 8      Logical Processor = 8 \n"},
        // VMware, 2 logical and 4 computed cores: cores lowered to 2;
        // hyper-threading is left as it was.
        EstimateCase{"VMwareLowersCores",
                     2,
                     {kIntel10, leaf1(1, kHyperThreading), leaf4(2)},
                     Backdoor::kMagic,
                     2,
                     2,
                     2,
                     15,
                     1,
                     "Total Logical: 2\nLogical per Physical: 1\nTotal Physical: 2\n"
                     "Chip is core capable.  Cores per physical = 2\ncorecount is 4.\n"
                     "\t2 Physical CPU(s) detected\n\t4 Physical Core(s) detected \n"
                     "\t2 Logical Processor(s) detected \nIt is running on VMware\n"
                     " More cores than logical processors detected.  Core count changed to "
                     "logical count 2.\n"
                     " Physical Count = 2     Core Count = 2      Logical Processor = 2 \n"},
        EstimateCase{"VMwareWithoutCorrection",
                     4,
                     {kIntel10, leaf1(4, 0), leaf4(2)},
                     Backdoor::kMagic,
                     1,
                     2,
                     4,
                     15,
                     1,
                     "Total Logical: 4\nLogical per Physical: 4\nTotal Physical: 1\n"
                     "Chip is core capable.  Cores per physical = 2\ncorecount is 2.\n"
                     "\t1 Physical CPU(s) detected\n\t2 Physical Core(s) detected \n"
                     "\t4 Logical Processor(s) detected \nIt is running on VMware\n"
                     " Physical Count = 1     Core Count = 2      Logical Processor = 4 \n"},
        // Another hypervisor: no magic, more cores than logical processors.
        EstimateCase{"UnknownVirtualMachine",
                     2,
                     {kIntel10, leaf1(1, kHyperThreading), leaf4(2)},
                     Backdoor::kOtherAnswer,
                     2,
                     2,
                     2,
                     15,
                     15,
                     "Total Logical: 2\nLogical per Physical: 1\nTotal Physical: 2\n"
                     "Chip is core capable.  Cores per physical = 2\ncorecount is 4.\n"
                     "\t2 Physical CPU(s) detected\n\t4 Physical Core(s) detected \n"
                     "\t2 Logical Processor(s) detected \nIt is running in unknown VM\n"
                     " More cores than logical processors detected.  Core count changed to "
                     "logical count 2.\n"
                     " Physical Count = 2     Core Count = 2      Logical Processor = 2 \n"}),
    [](const ::testing::TestParamInfo<EstimateCase>& info) {
      return std::string(info.param.name);
    });

TEST_F(CpuidEstimate, NoProcessorAtLevelFourFailsAndLeavesTheCounts) {
  for (const char* name : {"GenuineIntel", "AuthenticAMD"}) {
    scripted::setCpuid({vendor(3, name)});
    OutputCapture capture;
    Machine machine(1, capture.stream());
    EXPECT_EQ(machine.getCPUIDProcData(), -1);
    EXPECT_EQ(capture.streamText(), "Maximum CPUID level reported is 3.\n");
    EXPECT_EQ(machine.logicalCount, 65535);
    EXPECT_EQ(machine.physicalCount, 65535);
    EXPECT_EQ(machine.vmState, 15);
  }
}

TEST_F(CpuidEstimate, NoProcessorsFails) {
  scripted::setCpuid({vendor(10, "GenuineIntel")});
  OutputCapture capture;
  Machine machine(0, capture.stream());
  cpu_set_t saved;
  EXPECT_FALSE(machine.setAffinityMaskToLevel4CPU(&saved));
  EXPECT_EQ(capture.streamText(), "Maximum CPUID level reported is 10.\n");
  EXPECT_TRUE(affinityIsSaved());
}

TEST_F(CpuidEstimate, PinsTheFirstProcessorAtLevelFour) {
  scripted::setCpuid({vendor(4, "GenuineIntel")});
  Machine machine(2, nullptr);
  cpu_set_t saved;
  CPU_ZERO(&saved);
  ASSERT_TRUE(machine.setAffinityMaskToLevel4CPU(&saved));
  EXPECT_TRUE(CPU_EQUAL(&saved, &saved_));
  cpu_set_t now;
  CPU_ZERO(&now);
  sched_getaffinity(0, sizeof now, &now);
  EXPECT_EQ(CPU_COUNT(&now), 1);
  EXPECT_TRUE(CPU_ISSET(0, &now));
  machine.restoreProcessMask(saved);
  EXPECT_TRUE(affinityIsSaved());
}

TEST_F(CpuidEstimate, VMwareProbeTakesTheFaultAndResetsTheDisposition) {
  struct sigaction mine {};
  mine.sa_handler = [](int) {};
  sigaction(SIGSEGV, &mine, nullptr);
  XrProcDetectorLinux32 d(tzDebugNone, 0, nullptr, nullptr);
  for (auto [backdoor, expected] :
       {std::pair{Backdoor::kFault, false}, std::pair{Backdoor::kMagic, true},
        std::pair{Backdoor::kOtherAnswer, false}}) {
    scripted::setBackdoor(backdoor);
    EXPECT_EQ(d.IsInsideVMware(), expected);
    struct sigaction now {};
    sigaction(SIGSEGV, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
    // Only the fault leaves SIGSEGV blocked.
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV) == 1, backdoor == Backdoor::kFault);
    testsupport::unblockSegv();
  }
}

}  // namespace
