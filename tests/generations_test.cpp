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

// The probes on the leaves of each case of tables/cpuid_probes.txt.
TEST(CpuidProbes, AnswerFromTheLeavesTheirRulesName) {
  for (const auto& c : testsupport::table("tables/cpuid_probes.txt")) {
    SCOPED_TRACE(c[0]);
    std::vector<std::uint32_t> v;
    for (std::size_t i = 1; i < c.size(); ++i)
      v.push_back(std::uint32_t(std::stoul(c[i], nullptr, 0)));
    ASSERT_EQ(v.size(), 10u);
    scripted::setMachine(
        {{{0, 0}, {v[0], v[1], 0, 0}}, {{1, 0}, {0, v[2], 0, v[3]}}, {{4, 0}, {v[4], 0, 0, 0}}});
    XrProcDetectorLinux32 d(tzDebugNone, 0, nullptr, nullptr);
    const std::uint32_t got[5] = {d.CpuIDSupported(), d.LogicalProcPerPhysicalProc(),
                                  d.HWD_MTSupported(), d.GetAPIC_ID(), d.IsMultiCoreCapable()};
    EXPECT_EQ(std::vector<std::uint32_t>(got, got + 5),
              std::vector<std::uint32_t>(v.begin() + 5, v.end()));
  }
}
