// The processor and package tables that the /proc/cpuinfo scans fill.
#include <cstdlib>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/report.h"
#include "xrprocdetector/internal/text_index.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {

const std::string kNeverSeen{"x"};

using xrprocdetector::detail::sameText;
using xrprocdetector::detail::TextIndex;

// The index of processor numbers of the table that the calling thread fills.
// xrLogicalTable has no room of its own for it, so each thread keeps one, for
// the table it last looked a processor number up in. It covers records
// 0 .. indexed - 1 and is rebuilt from the records whenever it is not in step
// with the table at hand: another table, a fresh table (no records in use),
// or records in use that it does not cover. Between its own calls a table's
// processor numbers change only through findOrAddProcessor, which keeps the
// index in step.
struct ProcessorIndex {
  const xrLogicalTable* table = nullptr;
  std::int32_t indexed = 0;
  TextIndex index;
};

thread_local ProcessorIndex threadProcessorIndex;

ProcessorIndex& indexOf(const xrLogicalTable& table) {
  ProcessorIndex& ix = threadProcessorIndex;
  const std::int32_t n = table.logical;
  bool inStep = ix.table == &table && ix.indexed == n && n > 0 && n <= xrLogicalTable::kCapacity;
  if (inStep) {
    // The last record in use must be where the index puts it.
    std::size_t slot = 0;
    inStep = ix.index.find(
                 table.records[n - 1].processorNumber,
                 [&table](int i) -> const std::string& { return table.records[i].processorNumber; },
                 &slot) == n - 1;
  }
  if (inStep) return ix;
  ix.table = &table;
  ix.index.clear();
  ix.indexed = 0;
  // Records 0 .. n - 1 in order; a number seen before keeps its first
  // record, as a search from record 0 up would.
  for (std::int32_t i = 0; i < n && i < xrLogicalTable::kCapacity; ++i) {
    const std::string& number = table.records[i].processorNumber;
    std::size_t slot = 0;
    if (ix.index.find(
            number,
            [&table](int j) -> const std::string& { return table.records[j].processorNumber; },
            &slot) < 0)
      ix.index.insert(slot, i);
  }
  ix.indexed = n;
  return ix;
}

}  // namespace

xrLogicalData::CoreIdArray::~CoreIdArray() {
  // Last to first, as the record releases all of its texts.
  while (!written_.empty())
    written_.pop_back();
}

const std::string& xrLogicalData::CoreIdArray::operator[](int i) const {
  return i >= 0 && static_cast<std::size_t>(i) < written_.size() ? written_[i] : kNeverSeen;
}

void xrLogicalData::CoreIdArray::append(std::string_view value) {
  written_.emplace_back(value);
}

void xrLogicalTable::findOrAddProcessor(std::string_view value) {
  // The first record whose processor number equals `value`, found through
  // the index; the numbers in the table are distinct, so it is the one a
  // search from record 0 up would find.
  ProcessorIndex& ix = indexOf(*this);
  std::size_t slot = 0;
  const int found = ix.index.find(
      value, [this](int i) -> const std::string& { return records[i].processorNumber; }, &slot);
  if (found >= 0) {
    current = found;
    return;
  }
  // The table holds 256 records. A 257th distinct processor number is not
  // added and *current* stays on the record it was on, so every value of
  // that block goes to the record before it; the 256 counted stay as they
  // were.
  if (logical >= kCapacity) return;
  records[logical].processorNumber.assign(value);
  ix.index.insert(slot, logical);
  current = logical;
  ++logical;
  ix.indexed = logical;
}

void xrLogicalTable::setCpuCores(std::string_view value) {
  records[current].cpuCores.assign(value);
}

void xrLogicalTable::addCoreId(std::string_view value) {
  xrLogicalData& record = records[current];
  for (std::int32_t i = 0; i < record.coreIdCount; ++i) {
    if (sameText(record.coreIds[i], value)) return;
  }
  // A record holds 256 core ids; a 257th distinct one is not added.
  if (record.coreIdCount >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(value);
  ++record.coreIdCount;
}

void xrLogicalTable::findOrAddPackage(std::string_view value) {
  std::int32_t i = 0;
  while (i < packageCount && i <= kCapacity - 1 && !sameText(packages[i].physicalId, value))
    ++i;
  // The 257th and later distinct physical ids are dropped without a word,
  // but still become the current record's physical id.
  if (i == packageCount && i <= kCapacity - 1) {
    packages[packageCount].physicalId.assign(value);
    ++packageCount;
  }
  records[current].physicalId.assign(value);
}

void xrLogicalTable::derivePackageCores() {
  for (std::int32_t j = 0; j < packageCount; ++j) {
    for (std::int32_t i = 0; i < logical; ++i) {
      if (sameText(records[i].physicalId, packages[j].physicalId)) {
        // Clamped by strtol, then narrowed to 32 bits as two's complement.
        packages[j].cores =
            xrprocdetector::detail::narrow32(std::strtol(records[i].cpuCores.c_str(), nullptr, 10));
        break;
      }
    }
  }
}

std::int32_t xrLogicalTable::totalCores() const {
  // Summed as unsigned so that hostile values wrap instead of overflowing.
  std::uint32_t total = 0;
  for (std::int32_t j = 0; j < packageCount; ++j)
    total += static_cast<std::uint32_t>(packages[j].cores);
  return static_cast<std::int32_t>(total);
}

// ---------------------------------------------------------------------------
// The 6.0 scan's lists of distinct texts

namespace xrprocdetector {
namespace detail {

void DistinctTextLists::List::record(std::string_view v) {
  std::size_t slot = 0;
  if (index.find(
          v, [this](int i) -> const std::string& { return values[i]; }, &slot) >= 0)
    return;
  // Each list holds 256 values: a 257th distinct one is not recorded and the
  // count stays at 256.
  if (count >= kCapacity) return;
  values[count].assign(v);
  index.insert(slot, count);
  ++count;
}

}  // namespace detail
}  // namespace xrprocdetector
