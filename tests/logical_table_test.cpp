// The processor and package tables and their six operations.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "xrprocdetector/xrprocdetector.h"

namespace {

std::unique_ptr<xrLogicalTable> freshTable() {
  return std::make_unique<xrLogicalTable>();
}

TEST(LogicalTable, StartsEmptyWithEveryTextX) {
  auto t = freshTable();
  EXPECT_EQ(t->logical, 0);
  EXPECT_EQ(t->packageCount, 0);
  EXPECT_EQ(t->current, 0);
  for (int i : {0, 1, 255}) {
    const xrLogicalData& r = t->records[i];
    EXPECT_EQ(r.processorNumber, "x");
    EXPECT_EQ(r.cpuCores, "x");
    EXPECT_EQ(r.physicalId, "x");
    EXPECT_EQ(r.coreIdCount, 0);
    EXPECT_EQ(r.coreIds[0], "x");
    EXPECT_EQ(r.coreIds[255], "x");
    EXPECT_EQ(t->packages[i].physicalId, "x");
    EXPECT_EQ(t->packages[i].cores, 0);
  }
  t->derivePackageCores();
  EXPECT_EQ(t->totalCores(), 0);
}

TEST(LogicalTable, RepeatedProcessorNumberMakesItsRecordCurrent) {
  auto t = freshTable();
  t->findOrAddProcessor("0");
  t->findOrAddProcessor("1");
  EXPECT_EQ(t->current, 1);
  t->findOrAddProcessor("0");
  EXPECT_EQ(t->logical, 2);
  EXPECT_EQ(t->current, 0);
  t->setCpuCores("8");
  EXPECT_EQ(t->records[0].cpuCores, "8");
  EXPECT_EQ(t->records[1].cpuCores, "x");
}

TEST(LogicalTable, TextsCompareExactly) {
  auto t = freshTable();
  for (const char* v : {"0", "00", "a", "A", "0 "})
    t->findOrAddProcessor(v);
  EXPECT_EQ(t->logical, 5);
  t->findOrAddPackage("1");
  t->findOrAddPackage("01");
  EXPECT_EQ(t->packageCount, 2);
}

TEST(LogicalTable, CoreIdsAreDistinctInOrderOfFirstAppearance) {
  auto t = freshTable();
  t->findOrAddProcessor("0");
  for (const char* v : {"0", "0", "1", "0"})
    t->addCoreId(v);
  const xrLogicalData& r = t->records[0];
  EXPECT_EQ(r.coreIdCount, 2);
  EXPECT_EQ(r.coreIds[0], "0");
  EXPECT_EQ(r.coreIds[1], "1");
  EXPECT_EQ(r.coreIds[2], "x");
}

TEST(LogicalTable, ValuesBeforeAnyProcessorGoToRecordZero) {
  auto t = freshTable();
  t->setCpuCores("2");
  t->findOrAddPackage("3");
  EXPECT_EQ(t->logical, 0);
  EXPECT_EQ(t->records[0].physicalId, "3");
  // Record 0 is not in use, so its package finds no record and counts 0.
  t->derivePackageCores();
  EXPECT_EQ(t->packages[0].cores, 0);
  // Once a processor fills record 0, it keeps the values given before.
  t->findOrAddProcessor("0");
  t->derivePackageCores();
  EXPECT_EQ(t->packages[0].cores, 2);
}

struct Block {
  const char* processor;
  const char* cores;
  const char* physical;
};

int32_t totalOf(std::initializer_list<Block> blocks) {
  auto t = freshTable();
  for (const Block& b : blocks) {
    t->findOrAddProcessor(b.processor);
    if (b.cores) t->setCpuCores(b.cores);
    if (b.physical) t->findOrAddPackage(b.physical);
  }
  t->derivePackageCores();
  return t->totalCores();
}

TEST(LogicalTable, CoreTotalTakesEachPackagesFirstRecord) {
  EXPECT_EQ(totalOf({{"0", "4", "0"}, {"1", "6", "1"}}), 10);
  // Later records of a package never change its count.
  EXPECT_EQ(totalOf({{"0", "6", "0"}, {"1", "8", "0"}, {"2", "8", "0"}, {"3", "8", "0"}}), 6);
  // A package whose first record has no cpu-cores text counts 0.
  EXPECT_EQ(totalOf({{"0", nullptr, "0"}, {"1", "8", "0"}}), 0);
  // strtol: leading digits count, a sign counts, no digits give 0.
  EXPECT_EQ(totalOf({{"0", "4abc", "0"}, {"1", "-2", "1"}}), 2);
  EXPECT_EQ(totalOf({{"0", " 7", "0"}, {"1", "+3", "1"}, {"2", "cores", "2"}}), 10);
}

TEST(LogicalTable, PackageLeftWithoutARecordCountsZero) {
  auto t = freshTable();
  t->findOrAddProcessor("0");
  t->setCpuCores("4");
  t->findOrAddPackage("0");
  // Processor 0 again, now in package 1: package 0 is named by no record.
  t->findOrAddProcessor("0");
  t->findOrAddPackage("1");
  t->derivePackageCores();
  EXPECT_EQ(t->packageCount, 2);
  EXPECT_EQ(t->packages[0].cores, 0);
  EXPECT_EQ(t->packages[1].cores, 4);
}

TEST(LogicalTable, HostileNumbersNarrowAndWrap) {
  // strtol clamps to LONG_MAX, which is -1 in 32 bits; 2^32 + 1 is 1.
  EXPECT_EQ(totalOf({{"0", "99999999999999999999", "0"}}), -1);
  EXPECT_EQ(totalOf({{"0", "4294967297", "0"}}), 1);
  // Two packages of 2^31 - 1 cores wrap to -2.
  EXPECT_EQ(totalOf({{"0", "2147483647", "0"}, {"1", "2147483647", "1"}}), -2);
}

TEST(LogicalTable, PackagesStopAt256ButRecordsStillTakeTheId) {
  auto t = freshTable();
  t->findOrAddProcessor("0");
  for (int i = 0; i < 300; ++i)
    t->findOrAddPackage(std::to_string(i));
  EXPECT_EQ(t->packageCount, 256);
  EXPECT_EQ(t->packages[255].physicalId, "255");
  EXPECT_EQ(t->records[0].physicalId, "299");
  // A known id is still found once the table is full.
  t->findOrAddPackage("17");
  EXPECT_EQ(t->packageCount, 256);
  EXPECT_EQ(t->records[0].physicalId, "17");
}

TEST(LogicalTable, A257thProcessorIsNotAddedAndCurrentStays) {
  auto t = freshTable();
  for (int i = 0; i < 256; ++i)
    t->findOrAddProcessor(std::to_string(i));
  EXPECT_EQ(t->current, 255);
  t->findOrAddProcessor("256");
  EXPECT_EQ(t->logical, 256);
  EXPECT_EQ(t->current, 255);
  t->setCpuCores("9");
  EXPECT_EQ(t->records[255].cpuCores, "9");
  // Known numbers are still found.
  t->findOrAddProcessor("3");
  EXPECT_EQ(t->current, 3);
}

TEST(LogicalTable, A257thCoreIdIsNotAdded) {
  auto t = freshTable();
  t->findOrAddProcessor("0");
  for (int i = 0; i < 300; ++i)
    t->addCoreId(std::to_string(i));
  EXPECT_EQ(t->records[0].coreIdCount, 256);
  EXPECT_EQ(t->records[0].coreIds[255], "255");
  t->findOrAddProcessor("1");
  t->addCoreId("5");
  EXPECT_EQ(t->records[1].coreIdCount, 1);
}

}  // namespace
