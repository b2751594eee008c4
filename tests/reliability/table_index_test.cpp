// Past a handful of entries, the tables' lists (processor numbers, physical
// ids, a record's core ids) are searched through indexes. Values reach a
// table two ways: one at a time through the table's member operations, each
// with indexes made afresh, or all through one recorder that keeps its
// indexes in step over a whole scan. Either way, every lookup must find what
// a search from the first entry finds.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {

using xrprocdetector::detail::TableRecorder;

enum class Way { kMemberOperations, kOneRecorder };

// A table and the way its values are recorded.
class Filled {
 public:
  explicit Filled(Way way) : table_(std::make_unique<xrLogicalTable>()), way_(way) {}

  xrLogicalTable& operator*() { return *table_; }
  xrLogicalTable* operator->() { return table_.get(); }

  void processor(const std::string& v) {
    record(&xrLogicalTable::findOrAddProcessor, &TableRecorder::processor, v);
  }
  void cpuCores(const std::string& v) {
    record(&xrLogicalTable::setCpuCores, &TableRecorder::cpuCores, v);
  }
  void coreId(const std::string& v) {
    record(&xrLogicalTable::addCoreId, &TableRecorder::coreId, v);
  }
  void physicalId(const std::string& v) {
    record(&xrLogicalTable::findOrAddPackage, &TableRecorder::physicalId, v);
  }

 private:
  // The recorder is made at the first value, so that a table set up by hand
  // before it is what the recorder starts from.
  void record(void (xrLogicalTable::*operation)(std::string_view),
              void (TableRecorder::*recording)(std::string_view), const std::string& v) {
    if (way_ == Way::kMemberOperations) return (*table_.*operation)(v);
    if (!recorder_) recorder_ = std::make_unique<TableRecorder>(*table_);
    (*recorder_.*recording)(v);
  }

  std::unique_ptr<xrLogicalTable> table_;
  Way way_;
  std::unique_ptr<TableRecorder> recorder_;
};

class TableIndexes : public ::testing::TestWithParam<Way> {};

TEST_P(TableIndexes, TwoTablesFilledInTurnKeepTheirOwnNumbers) {
  Filled a(GetParam());
  Filled b(GetParam());
  // a gets 0..19, b gets 100..119, one at a time in turn.
  for (int n = 0; n < 20; ++n) {
    a.processor(std::to_string(n));
    b.processor(std::to_string(100 + n));
  }
  ASSERT_EQ(a->logical, 20);
  ASSERT_EQ(b->logical, 20);
  // Each finds its own numbers and not the other's.
  a.processor("7");
  EXPECT_EQ(a->current, 7);
  b.processor("107");
  EXPECT_EQ(b->current, 7);
  a.processor("107");
  EXPECT_EQ(a->logical, 21);
  EXPECT_EQ(a->current, 20);
  b.processor("7");
  EXPECT_EQ(b->logical, 21);
  EXPECT_EQ(b->records[20].processorNumber, "7");
}

TEST_P(TableIndexes, ATableSetUpByHandIsSearchedAsSetUp) {
  // Records 0..11 numbered 40..51 by hand, as a test might set a table up,
  // except that record 11 repeats 40: the first one counts.
  Filled t(GetParam());
  for (int i = 0; i < 12; ++i)
    t->records[i].processorNumber = std::to_string(40 + i);
  t->records[11].processorNumber = "40";
  t->logical = 12;
  for (int i = 1; i < 11; ++i) {
    t.processor(std::to_string(40 + i));
    EXPECT_EQ(t->current, i);
  }
  t.processor("40");
  EXPECT_EQ(t->current, 0);
  t.processor("51");
  EXPECT_EQ(t->current, 12);
  EXPECT_EQ(t->logical, 13);
  t.processor("40");
  EXPECT_EQ(t->current, 0);
}

TEST_P(TableIndexes, LongCoreIdListsOfTwoRecordsInTurn) {
  // Two records filled in turn, with lists of the same length but other
  // texts, must each keep their own distinct ids: 12 each, then repeats.
  Filled t(GetParam());
  for (int k = 0; k < 30; ++k) {
    t.processor("0");
    t.coreId("a" + std::to_string(k % 12));
    t.processor("1");
    t.coreId("b" + std::to_string(k % 12));
  }
  EXPECT_EQ(t->records[0].coreIdCount, 12);
  EXPECT_EQ(t->records[1].coreIdCount, 12);
  EXPECT_EQ(t->records[0].coreIds[11], "a11");
  EXPECT_EQ(t->records[1].coreIds[11], "b11");
  EXPECT_EQ(t->records[0].coreIds[12], "x");
  // The other record's id is new to this one.
  t.coreId("a3");
  EXPECT_EQ(t->records[1].coreIdCount, 13);
  EXPECT_EQ(t->records[1].coreIds[12], "a3");
}

TEST_P(TableIndexes, ManyPackagesAreFoundAndDerivedAsFromTheFirst) {
  // 20 packages. Record i is in package i % 20 with i cores, so package p
  // takes record p's cores: p. Then record 0 moves to package 19, which
  // already has a first record (19): still 19.
  Filled t(GetParam());
  for (int i = 0; i < 40; ++i) {
    t.processor(std::to_string(i));
    t.cpuCores(std::to_string(i));
    t.physicalId(std::to_string(i % 20));
  }
  t.processor("0");
  t.physicalId("19");
  EXPECT_EQ(t->packageCount, 20);
  t->derivePackageCores();
  EXPECT_EQ(t->packages[0].cores, 20);  // record 20 is now the first in package 0
  EXPECT_EQ(t->packages[5].cores, 5);
  EXPECT_EQ(t->packages[19].cores, 0);  // record 0 (0 cores) is now its first
  // 20 + (1 + ... + 18) + 0
  EXPECT_EQ(t->totalCores(), 20 + 171);
}

INSTANTIATE_TEST_SUITE_P(BothWays, TableIndexes,
                         ::testing::Values(Way::kMemberOperations, Way::kOneRecorder),
                         [](const ::testing::TestParamInfo<Way>& info) {
                           return info.param == Way::kMemberOperations ? "MemberOperations"
                                                                       : "OneRecorder";
                         });

}  // namespace
