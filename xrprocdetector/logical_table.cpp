// The processor and package tables that the /proc/cpuinfo scans fill.
#include <cstdlib>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/report.h"
#include "xrprocdetector/internal/text_index.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {

const std::string kNeverSeen{"x"};

using xrprocdetector::detail::sameText;
using xrprocdetector::detail::TableRecorder;
using xrprocdetector::detail::TextIndex;

// Up to this many packages, package cores are derived by searching the
// records from the first for each package.
constexpr std::int32_t kSearchedDirectly = xrprocdetector::detail::ListFinder::kSearchedDirectly;

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
    // Room for a few from the first: a record with more than one core id
    // has a handful, and a block of this size stays out of the allocator's
    // small-block lists, whose clearing on the scan's next large allocation
    // (the tables) would cost a step per block.
    if (rest_.empty()) rest_.reserve(4);
    rest_.emplace_back(value);
  }
  ++written_;
}

// The four operations that record a value go through a recorder made for
// that one value, the same code that records the values of a scan.
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
  // index) that carries its physical id.
  auto coresOf = [this](std::int32_t record) {
    // Clamped by strtol, then narrowed to 32 bits as two's complement.
    return xrprocdetector::detail::narrow32(
        std::strtol(records[record].cpuCores.c_str(), nullptr, 10));
  };
  if (packageCount <= kSearchedDirectly) {
    for (std::int32_t j = 0; j < packageCount; ++j) {
      for (std::int32_t i = 0; i < logical; ++i) {
        if (sameText(records[i].physicalId, packages[j].physicalId)) {
          packages[j].cores = coresOf(i);
          break;
        }
      }
    }
    return;
  }
  // Many packages: index the records by physical id first, keeping the
  // first record of each, so that each package costs one lookup.
  TextIndex firstRecord;
  auto idAt = [this](int i) -> const std::string& { return records[i].physicalId; };
  for (std::int32_t i = 0; i < logical && i < kCapacity; ++i) {
    std::size_t slot = 0;
    if (firstRecord.find(records[i].physicalId, idAt, &slot) < 0) firstRecord.insert(slot, i);
  }
  for (std::int32_t j = 0; j < packageCount; ++j) {
    std::size_t slot = 0;
    const int i = firstRecord.find(packages[j].physicalId, idAt, &slot);
    if (i >= 0) packages[j].cores = coresOf(i);
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
// The recorder of the scans that fill the tables

namespace xrprocdetector {
namespace detail {

void TableRecorder::processor(std::string_view v) {
  xrLogicalTable& t = table_;
  const int found = processors_.find(&t.records, t.logical, v, [&t](int i) -> const std::string& {
    return t.records[i].processorNumber;
  });
  if (found >= 0) {
    t.current = found;
    return;
  }
  // The table holds 256 records. A 257th distinct processor number is not
  // added and *current* stays on the record it was on, so every value of
  // that block goes to the record before it; the 256 counted stay as they
  // were.
  if (t.logical < 0 || t.logical >= xrLogicalTable::kCapacity) return;
  t.records[t.logical].processorNumber.assign(v);
  processors_.appended(t.logical);
  t.current = t.logical;
  ++t.logical;
}

void TableRecorder::coreId(std::string_view v) {
  xrLogicalData& record = table_.records[table_.current];
  const std::int32_t n = record.coreIdCount;
  if (coreIds_.find(&record, n, v,
                    [&record](int i) -> const std::string& { return record.coreIds[i]; }) >= 0)
    return;
  // A record holds 256 core ids; a 257th distinct one is not added.
  if (n < 0 || n >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(v);
  coreIds_.appended(n);
  record.coreIdCount = n + 1;
}

void TableRecorder::physicalId(std::string_view v) {
  xrLogicalTable& t = table_;
  const int found =
      packages_.find(&t.packages, t.packageCount, v,
                     [&t](int i) -> const std::string& { return t.packages[i].physicalId; });
  // The 257th and later distinct physical ids are dropped without a word,
  // but still become the current record's physical id.
  if (found < 0 && t.packageCount >= 0 && t.packageCount < xrLogicalTable::kCapacity) {
    t.packages[t.packageCount].physicalId.assign(v);
    packages_.appended(t.packageCount);
    ++t.packageCount;
  }
  t.records[t.current].physicalId.assign(v);
}

// ---------------------------------------------------------------------------
// The 6.0 scan's lists of distinct texts

void DistinctTextLists::List::record(std::string_view v) {
  if (finder.find(this, count, v, [this](int i) -> const std::string& { return values[i]; }) >= 0)
    return;
  // Each list holds 256 values: a 257th distinct one is not recorded and the
  // count stays at 256.
  if (count >= kCapacity) return;
  values[count].assign(v);
  finder.appended(count);
  ++count;
}

}  // namespace detail
}  // namespace xrprocdetector
