// The processor and package tables that the /proc/cpuinfo scans fill, and
// the 6.0 scan's lists. Lookups are linear searches from the first entry, so
// the first equal text wins.
#include <algorithm>
#include <cstdlib>

#include "legacy/cpuinfo_walk.h"
#include "legacy/verdict.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {
const std::string kNeverSeen{"x"};
using xrprocdetector::detail::TableRecorder;
}  // namespace

xrLogicalData::CoreIdArray::~CoreIdArray() {
  // Last to first, as the record releases all of its texts; first_ goes
  // after rest_, being declared before it.
  while (!rest_.empty())
    rest_.pop_back();
}

const std::string& xrLogicalData::CoreIdArray::operator[](int i) const {
  if (i < 0 || i >= written_) return kNeverSeen;
  return i == 0 ? first_ : rest_[static_cast<std::size_t>(i) - 1];
}

void xrLogicalData::CoreIdArray::append(std::string_view value) {
  if (written_ >= kCapacity) return;
  if (written_ == 0) {
    first_.assign(value);
  } else {
    rest_.emplace_back(value);
  }
  ++written_;
}

void xrLogicalTable::findOrAddProcessor(std::string_view value) {
  TableRecorder(*this).processor(value);
}

void xrLogicalTable::setCpuCores(std::string_view value) {
  TableRecorder(*this).cpuCores(value);
}

void xrLogicalTable::addCoreId(std::string_view value) {
  TableRecorder(*this).coreId(value);
}

void xrLogicalTable::findOrAddPackage(std::string_view value) {
  TableRecorder(*this).physicalId(value);
}

void xrLogicalTable::derivePackageCores() {
  // Each package takes the cpu-cores value of the first record (lowest
  // index) that carries its physical id, clamped by strtol and narrowed to
  // 32 bits; a package that no record names keeps 0.
  for (std::int32_t j = 0; j < packageCount && j < kCapacity; ++j) {
    for (std::int32_t i = 0; i < logical && i < kCapacity; ++i) {
      if (records[i].physicalId == packages[j].physicalId) {
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
  for (std::int32_t j = 0; j < packageCount && j < kCapacity; ++j)
    total += static_cast<std::uint32_t>(packages[j].cores);
  return static_cast<std::int32_t>(total);
}

namespace xrprocdetector {
namespace detail {

void TableRecorder::processor(std::string_view v) {
  xrLogicalTable& t = table_;
  for (; indexed_ < t.logical && indexed_ < xrLogicalTable::kCapacity; ++indexed_)
    processors_.emplace(t.records[indexed_].processorNumber, indexed_);  // keeps the first
  const auto found = processors_.find(v);
  if (found != processors_.end()) {
    t.current = found->second;
    return;
  }
  // The table holds 256 records. A 257th distinct processor number is not
  // added and *current* stays on the record it was on, so every value of
  // that block goes to the record before it; the 256 counted stay as they
  // were.
  if (t.logical < 0 || t.logical >= xrLogicalTable::kCapacity) return;
  t.records[t.logical].processorNumber.assign(v);
  t.current = t.logical;
  ++t.logical;
}

void TableRecorder::cpuCores(std::string_view v) {
  table_.records[table_.current].cpuCores.assign(v);
}

void TableRecorder::coreId(std::string_view v) {
  // A record with more core ids than this is searched through an index.
  constexpr std::int32_t kIndexFrom = 16;
  xrLogicalData& record = table_.records[table_.current];
  const std::int32_t n = std::min(record.coreIdCount, xrLogicalData::CoreIdArray::kCapacity);
  if (n >= kIndexFrom) {
    CoreIds& index = coreIds_[table_.current];
    for (; index.indexed < n; ++index.indexed)
      index.ids.insert(index.texts.emplace_back(record.coreIds[index.indexed]));
    if (index.ids.count(v) != 0) return;
  } else {
    for (std::int32_t i = 0; i < n; ++i) {
      if (record.coreIds[i] == v) return;
    }
  }
  // A record holds 256 core ids; a 257th distinct one is not added.
  if (n < 0 || n >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(v);
  record.coreIdCount = n + 1;
}

void TableRecorder::physicalId(std::string_view v) {
  xrLogicalTable& t = table_;
  std::int32_t i = 0;
  while (i < t.packageCount && i < xrLogicalTable::kCapacity && t.packages[i].physicalId != v)
    ++i;
  // The 257th and later distinct physical ids are dropped without a word,
  // but still become the current record's physical id.
  if (i == t.packageCount && i < xrLogicalTable::kCapacity) {
    t.packages[i].physicalId.assign(v);
    ++t.packageCount;
  }
  t.records[t.current].physicalId.assign(v);
}

void DistinctTextLists::List::record(std::string_view v) {
  // Each list holds 256 values: a 257th distinct one is not recorded and the
  // count stays at 256.
  if (seen.count(v) != 0 || values.size() >= 256) return;
  values.emplace_back(v);
  seen.insert(values.back());
}

}  // namespace detail
}  // namespace xrprocdetector
