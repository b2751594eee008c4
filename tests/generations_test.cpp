// Each generation's whole detection. Every file of tests/data/expected/
// generations/ starts with a line that says what to run: a generation, its
// version index and debug level, and the fixture to read as /proc/cpuinfo;
// for the default detector, also the machine it runs on when its scan finds
// no physical id and it goes on to the CPUID estimate: its processor count,
// the vendor, highest leaf, logical processors per package (leaf 1, with or
// without the hyper-threading flag) and cores per package (as leaves 4, 11
// and 0x80000008 tell) of its processors, what the VMware backdoor does, and
// the processors that the thread may be pinned to, and whether its affinity
// cannot be read (affinity=unreadable). The rest of the file is
// what the run writes to the debug stream, what printSummary writes after
// it, and the result fields and hardware used.

#include <map>
#include <sstream>

#include "support/scripted_hardware.h"

// The default detector on a machine of `total` configured processors.
struct Machine : XrProcDetectorLinux32 {
  Machine(tz_debuglevel level, __tz_procInfoIndex index, FILE* stream, int processors)
      : XrProcDetectorLinux32(level, 0, index, stream, nullptr), total(processors) {}
  int bosGetLogicalProcessorCount() override { return total; }
  int total;
};

TEST(Generations, WholeDetection) {
  for (const auto& file :
       std::filesystem::directory_iterator(testsupport::fixture("expected/generations"))) {
    const std::string name = "generations/" + file.path().stem().string();
    SCOPED_TRACE(name);
    const std::string expected = testsupport::expected(name);
    const std::string runLine = expected.substr(0, expected.find('\n') + 1);
    std::map<std::string, std::string> run;  // "run: KEY=VALUE ..."
    std::istringstream words(runLine.substr(4));
    for (std::string word; words >> word;)
      run[word.substr(0, word.find('='))] = word.substr(word.find('=') + 1);
    auto number = [&run](const char* key, const char* otherwise = "0") {
      return std::uint32_t(std::stoul(run.count(key) ? run[key] : otherwise, nullptr, 0));
    };
    const std::uint32_t cores = number("cores");
    scripted::setMachine(
        {{{0, 0}, scripted::vendor(number("maxLeaf"), run["vendor"].c_str())},
         {{1, 0}, {0, number("perPackage") << 16, 0, number("hyperThreading") << 28}},
         {{4, 0}, {(cores - 1) << 26 | 0x4121, 0, 0, 0}},
         {{11, 0}, {1, cores, 0, 0}},
         {{0x80000008, 0}, {0, 0, 0x3000 | (cores - 1), 0}}},
        run["backdoor"] == "magic"   ? scripted::Backdoor::kMagic
        : run["backdoor"] == "other" ? scripted::Backdoor::kOtherAnswer
                                     : scripted::Backdoor::kFault,
        number("allowed", "0xF"));
    scripted::affinityUnreadable = run["affinity"] == "unreadable";
    const testsupport::CpuinfoMachine redirect(testsupport::CpuinfoMachine::kFile,
                                               testsupport::fixture(run["fixture"] + ".cpuinfo"));
    testsupport::OutputCapture capture;
    const auto level = tz_debuglevel(number("level"));
    const auto index = __tz_procInfoIndex(number("index"));
    auto d = run.count("processors")
                 ? std::make_unique<Machine>(level, index, capture.stream(), number("processors"))
                 : testsupport::makeDetector(run["generation"], level, capture.stream(), index);
    const int result = d->getProcData();
    const std::string detection = capture.text;
    d->printSummary();
    EXPECT_EQ(runLine + detection + "-- printSummary\n" + capture.text.substr(detection.size()) +
                  "-- result " + std::to_string(result) + ", counts " + testsupport::counts(*d) +
                  ", hyperThreadState " + std::to_string(d->hyperThreadState) + ", vmState " +
                  std::to_string(d->vmState) + ", cpuid " +
                  (scripted::cpuidQueries ? "asked" : "not asked") + ", vmware probes " +
                  std::to_string(scripted::backdoorQueries) + ", affinity " +
                  scripted::affinityText() + "\n",
              expected);
  }
}

TEST(CpuidProbes, AnswerFromTheLeavesTheirRulesName) {
  // Highest leaf, leaf 1 EBX and EDX, leaf 4 EAX; the probes' answers:
  // CpuIDSupported, LogicalProcPerPhysicalProc, HWD_MTSupported, GetAPIC_ID,
  // IsMultiCoreCapable.
  const struct {
    const char* name;
    std::uint32_t maxLeaf, vendorWord, ebx1, edx1, eax4;
    unsigned want[5];
  } cases[] = {
      // clang-format off
      // Leaf 0 alone: no other leaf is asked.
      {"highest leaf 0", 0, 0x756e6547, 0x05080000, 0x10000000, 0x1C000000, {0, 1, 0, 0, 1}},
      {"leaf 1 and leaf 4", 5, 0x756e6547, 0x05080000, 0x10000000, 0x1C000000,
       {5, 8, 0x10000000, 5, 8}},
      {"no processors per package, no flag", 5, 0x756e6547, 0x2A000000, 0, 0, {5, 1, 0, 42, 1}},
      // The guard meant for a highest leaf below 4 tests the vendor word.
      {"vendor word below 4", 5, 3, 0, 0, 0x1C000000, {5, 1, 0, 0, 1}},
      // clang-format on
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    scripted::setMachine({{{0, 0}, {c.maxLeaf, c.vendorWord, 0, 0}},
                          {{1, 0}, {0, c.ebx1, 0, c.edx1}},
                          {{4, 0}, {c.eax4, 0, 0, 0}}});
    XrProcDetectorLinux32 d(tzDebugNone, 0, nullptr, nullptr);
    const unsigned got[5] = {d.CpuIDSupported(), d.LogicalProcPerPhysicalProc(),
                             d.HWD_MTSupported(), d.GetAPIC_ID(), d.IsMultiCoreCapable()};
    EXPECT_EQ(std::vector<unsigned>(got, got + 5), std::vector<unsigned>(c.want, c.want + 5));
  }
}
