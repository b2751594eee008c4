// The /proc/cpuinfo scans: the operations of the logical processor table,
// and each generation's counts on every fixture of tests/data.

#include <set>

#include "support/test_support.h"

TEST(LogicalTable, RecordsByProcessorAndPackageCoresFromTheFirstRecordUpToCapacity) {
  auto t = std::make_unique<xrLogicalTable>();
  // The blocks of tables/logical_table.txt, whose comments say what each
  // tests.
  for (const auto& b : testsupport::table("tables/logical_table.txt")) {
    ASSERT_EQ(b.size(), 4u);
    t->findOrAddProcessor(b[0]);
    t->addCoreId(b[1]);
    t->setCpuCores(b[2]);
    t->findOrAddPackage(b[3]);
  }
  const xrLogicalData& two = t->records[2];
  EXPECT_EQ(std::to_string(t->logical) + " " + std::to_string(two.coreIdCount), "14 2");
  EXPECT_EQ(two.coreIds[0] + two.coreIds[1] + two.coreIds[2], "01x");
  t->derivePackageCores();
  std::string cores;
  for (int i = 0; i < t->packageCount; ++i)
    cores += std::to_string(t->packages[i].cores) + " ";
  EXPECT_EQ(cores, "6 0 0 4 -2 3 7 0 0 1 -1 0 2147483647 2147483647 ");
  EXPECT_EQ(t->totalCores(), 16);  // 18 + 2^32 - 2, in 32 bits
  // A record stops adding core ids at its capacity, 256.
  t->findOrAddProcessor("capacity");
  for (int id = 0; id < 300; ++id)
    t->addCoreId(std::to_string(id));
  t->addCoreId("7");  // already there: nothing changes
  const xrLogicalData& record = t->records[t->logical - 1];
  EXPECT_EQ(record.coreIdCount, 256);
  EXPECT_EQ(record.coreIds[255], "255");
}

// One generation's scan of a fixture: 6.0 and 6.1 alone, before the 6.x
// frame raises zero counts to 1; 7.0 and the default detector through
// platformProcInfo.
static std::string scan(const std::string& generation, const std::string& file) {
  const testsupport::CpuinfoMachine redirect(testsupport::CpuinfoMachine::kText,
                                             testsupport::readFile(file));
  auto d = testsupport::makeDetector(generation, tzDebugNone, nullptr);
  if (generation[0] == '6') {
    auto& sixX = static_cast<XrProcDetectorLegacy_6x&>(*d);
    generation == "6.0" ? sixX.LinuxProcInfo60() : sixX.LinuxProcInfo61();
    return testsupport::counts(*d);
  }
  const int result = d->platformProcInfo();
  return testsupport::counts(*d) + (result == 0 ? "" : " (" + std::to_string(result) + ")");
}

TEST(Scan, EachGenerationOnEachFixture) {
  const std::set<std::filesystem::path> files(
      std::filesystem::directory_iterator(testsupport::fixture("")), {});
  std::string table;  // tests/data/expected/scans.txt
  for (const auto& file : files) {
    if (file.extension() != ".cpuinfo") continue;
    std::string row;
    for (const char* generation : {"6.0", "6.1", "7.0", "default"})
      row += " | " + scan(generation, file);
    table += file.stem().string() + ":" + row.substr(2) + "\n";
  }
  EXPECT_EQ(table, testsupport::expected("scans"));
}
