// The table operations search long lists through indexes that each thread
// keeps for the list it last searched. Whatever a thread does with its tables
// (fill two in turn, free one and make another in its place, set one up by
// hand), every lookup must find what a search from the first entry finds.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "xrprocdetector/xrprocdetector.h"

namespace {

TEST(TableIndexes, TwoTablesFilledInTurnKeepTheirOwnNumbers) {
  auto a = std::make_unique<xrLogicalTable>();
  auto b = std::make_unique<xrLogicalTable>();
  // a gets 0..19, b gets 100..119, one at a time in turn.
  for (int n = 0; n < 20; ++n) {
    a->findOrAddProcessor(std::to_string(n));
    b->findOrAddProcessor(std::to_string(100 + n));
  }
  ASSERT_EQ(a->logical, 20);
  ASSERT_EQ(b->logical, 20);
  // Each finds its own numbers and not the other's.
  a->findOrAddProcessor("7");
  EXPECT_EQ(a->current, 7);
  b->findOrAddProcessor("107");
  EXPECT_EQ(b->current, 7);
  a->findOrAddProcessor("107");
  EXPECT_EQ(a->logical, 21);
  EXPECT_EQ(a->current, 20);
  b->findOrAddProcessor("7");
  EXPECT_EQ(b->logical, 21);
  EXPECT_EQ(b->records[20].processorNumber, "7");
}

TEST(TableIndexes, ATableMadeWhereAnotherWasStartsEmpty) {
  for (int round = 0; round < 3; ++round) {
    auto t = std::make_unique<xrLogicalTable>();
    // Freed and made again, a table may well land at the same address.
    t->findOrAddProcessor("1");
    t->findOrAddProcessor("0");
    t->findOrAddProcessor("1");
    EXPECT_EQ(t->logical, 2) << "round " << round;
    EXPECT_EQ(t->current, 0) << "round " << round;
    EXPECT_EQ(t->records[1].processorNumber, "0");
  }
}

TEST(TableIndexes, ATableSetUpByHandIsSearchedAsSetUp) {
  // Records and count written directly, as a test might set a table up.
  auto t = std::make_unique<xrLogicalTable>();
  t->records[0].processorNumber = "40";
  t->records[1].processorNumber = "41";
  t->records[2].processorNumber = "40";  // a repeat: the first one counts
  t->logical = 3;
  t->findOrAddProcessor("41");
  EXPECT_EQ(t->current, 1);
  t->findOrAddProcessor("40");
  EXPECT_EQ(t->current, 0);
  t->findOrAddProcessor("42");
  EXPECT_EQ(t->current, 3);
  EXPECT_EQ(t->logical, 4);
}

TEST(TableIndexes, LongCoreIdListsOfTwoRecordsInTurn) {
  // Past a handful of entries a record's core ids go through an index; two
  // records filled in turn must each keep their own distinct ids.
  auto t = std::make_unique<xrLogicalTable>();
  for (int k = 0; k < 40; ++k) {
    t->findOrAddProcessor("0");
    t->addCoreId(std::to_string(k % 30));  // 0..29, then 0..9 again
    t->findOrAddProcessor("1");
    t->addCoreId(std::to_string(k));  // 0..39
  }
  EXPECT_EQ(t->records[0].coreIdCount, 30);
  EXPECT_EQ(t->records[1].coreIdCount, 40);
  EXPECT_EQ(t->records[0].coreIds[29], "29");
  EXPECT_EQ(t->records[1].coreIds[39], "39");
}

TEST(TableIndexes, ManyPackagesAreFoundAndDerivedAsFromTheFirst) {
  // 20 packages, past the handful searched directly. Record i is in package
  // i % 20 with i cores, so package p takes record p's cores: p. Then record
  // 0 moves to package 19, which already has a first record (19): still 19.
  auto t = std::make_unique<xrLogicalTable>();
  for (int i = 0; i < 40; ++i) {
    t->findOrAddProcessor(std::to_string(i));
    t->setCpuCores(std::to_string(i));
    t->findOrAddPackage(std::to_string(i % 20));
  }
  t->findOrAddProcessor("0");
  t->findOrAddPackage("19");
  EXPECT_EQ(t->packageCount, 20);
  t->derivePackageCores();
  EXPECT_EQ(t->packages[0].cores, 20);  // record 20 is now the first in package 0
  EXPECT_EQ(t->packages[5].cores, 5);
  EXPECT_EQ(t->packages[19].cores, 0);  // record 0 (0 cores) is now its first
  // 20 + (1 + ... + 18) + 0
  EXPECT_EQ(t->totalCores(), 20 + 171);
}

}  // namespace
