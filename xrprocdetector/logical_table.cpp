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

// Lists of distinct texts in the tables (the processor numbers, a record's
// core ids, the packages' physical ids) are searched through a TextIndex once
// they hold more than a few entries. xrLogicalTable has no room of its own
// for one, so each thread keeps an index per kind of list, for the list it
// last searched. An index covers entries 0 .. indexed - 1 of its list and is
// rebuilt from the list whenever it is not in step with the list at hand:
// another list, another number of entries, or a last entry that it does not
// place where it is. Between searches the lists change only through the
// table operations below, which keep the index in step.
struct FollowingIndex {
  const void* list = nullptr;
  std::int32_t indexed = 0;
  TextIndex index;

  // Brings the index in step with `list`, whose entries 0 .. count - 1
  // textAt() gives.
  template <class TextAt>
  void follow(const void* which, std::int32_t count, const TextAt& textAt) {
    std::size_t slot = 0;
    if (list == which && indexed == count && count > 0 && count <= TextIndex::kMaxTexts &&
        index.find(textAt(count - 1), textAt, &slot) == count - 1)
      return;
    list = which;
    index.clear();
    // In order, so that a text that occurs twice keeps its first position,
    // as a search from the first entry would find it.
    for (std::int32_t i = 0; i < count && i < TextIndex::kMaxTexts; ++i) {
      if (index.find(textAt(i), textAt, &slot) < 0) index.insert(slot, i);
    }
    indexed = count;
  }
};

struct ThreadIndexes {
  FollowingIndex processors;
  FollowingIndex coreIds;
  FollowingIndex packages;
};

thread_local ThreadIndexes threadIndexes;

// Up to this many entries a list is searched from the first: the usual one
// or two core ids of a record, or the few packages of a machine.
constexpr std::int32_t kSearchedDirectly = 8;

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
  // Room for a few from the first: a record's core ids are few, and a block
  // of this size stays out of the allocator's small-block lists, whose
  // clearing on the scan's next large allocation (the tables) would cost a
  // step per block.
  if (written_.empty()) written_.reserve(4);
  written_.emplace_back(value);
}

void xrLogicalTable::findOrAddProcessor(std::string_view value) {
  // The first record whose processor number equals `value`, found through
  // the index; the numbers in the table are distinct, so it is the one a
  // search from record 0 up would find.
  auto numberAt = [this](int i) -> const std::string& { return records[i].processorNumber; };
  FollowingIndex& ix = threadIndexes.processors;
  ix.follow(this, logical, numberAt);
  std::size_t slot = 0;
  const int found = ix.index.find(value, numberAt, &slot);
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
  const std::int32_t n = record.coreIdCount;
  auto idAt = [&record](int i) -> const std::string& { return record.coreIds[i]; };
  std::size_t slot = 0;
  FollowingIndex* ix = nullptr;
  if (n <= kSearchedDirectly) {
    for (std::int32_t i = 0; i < n; ++i) {
      if (sameText(record.coreIds[i], value)) return;
    }
  } else {
    ix = &threadIndexes.coreIds;
    ix->follow(&record, n, idAt);
    if (ix->index.find(value, idAt, &slot) >= 0) return;
  }
  // A record holds 256 core ids; a 257th distinct one is not added.
  if (n >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(value);
  record.coreIdCount = n + 1;
  if (ix != nullptr) {
    ix->index.insert(slot, n);
    ix->indexed = n + 1;
  }
}

void xrLogicalTable::findOrAddPackage(std::string_view value) {
  // Entries 0 .. packageCount - 1 (never more than 256) hold distinct texts,
  // so "found" is the same whether searched from the first or through the
  // index.
  auto idAt = [this](int i) -> const std::string& { return packages[i].physicalId; };
  bool found = false;
  std::size_t slot = 0;
  FollowingIndex* ix = nullptr;
  if (packageCount <= kSearchedDirectly) {
    for (std::int32_t i = 0; i < packageCount && !found; ++i)
      found = sameText(packages[i].physicalId, value);
  } else {
    ix = &threadIndexes.packages;
    ix->follow(this, packageCount, idAt);
    found = ix->index.find(value, idAt, &slot) >= 0;
  }
  // The 257th and later distinct physical ids are dropped without a word,
  // but still become the current record's physical id.
  if (!found && packageCount >= 0 && packageCount < kCapacity) {
    packages[packageCount].physicalId.assign(value);
    if (ix != nullptr) {
      ix->index.insert(slot, packageCount);
      ix->indexed = packageCount + 1;
    }
    ++packageCount;
  }
  records[current].physicalId.assign(value);
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

TableRecorder::TableRecorder(xrLogicalTable& table) : table_(table) {
  // In order, so that a text that occurs twice keeps its first position, as
  // a search from the first entry would find it.
  auto numberAt = [this](int i) -> const std::string& { return table_.records[i].processorNumber; };
  for (std::int32_t i = 0; i < table_.logical && i < xrLogicalTable::kCapacity; ++i) {
    std::size_t slot = 0;
    if (processors_.find(numberAt(i), numberAt, &slot) < 0) processors_.insert(slot, i);
  }
  auto idAt = [this](int i) -> const std::string& { return table_.packages[i].physicalId; };
  for (std::int32_t i = 0; i < table_.packageCount && i < xrLogicalTable::kCapacity; ++i) {
    std::size_t slot = 0;
    if (packages_.find(idAt(i), idAt, &slot) < 0) packages_.insert(slot, i);
  }
}

void TableRecorder::processor(std::string_view v) {
  // As findOrAddProcessor: the record numbered `v` becomes current; a new
  // number is added while the table has room, else current stays.
  xrLogicalTable& t = table_;
  auto numberAt = [&t](int i) -> const std::string& { return t.records[i].processorNumber; };
  std::size_t slot = 0;
  const int found = processors_.find(v, numberAt, &slot);
  if (found >= 0) {
    t.current = found;
    return;
  }
  if (t.logical >= xrLogicalTable::kCapacity) return;
  t.records[t.logical].processorNumber.assign(v);
  processors_.insert(slot, t.logical);
  t.current = t.logical;
  ++t.logical;
}

void TableRecorder::coreId(std::string_view v) {
  // As addCoreId: `v` joins the current record's core ids unless there, and
  // while the record has room.
  xrLogicalData& record = table_.records[table_.current];
  const std::int32_t n = record.coreIdCount;
  std::size_t slot = 0;
  bool indexed = false;
  if (n <= kSearchedDirectly) {
    for (std::int32_t i = 0; i < n; ++i) {
      if (sameText(record.coreIds[i], v)) return;
    }
  } else {
    auto idAt = [&record](int i) -> const std::string& { return record.coreIds[i]; };
    if (coreIdsOf_ != &record || coreIdsIndexed_ != n) {
      // Another record than the one indexed: index this one's list.
      coreIds_.clear();
      for (std::int32_t i = 0; i < n && i < TextIndex::kMaxTexts; ++i) {
        if (coreIds_.find(idAt(i), idAt, &slot) < 0) coreIds_.insert(slot, i);
      }
      coreIdsOf_ = &record;
      coreIdsIndexed_ = n;
    }
    if (coreIds_.find(v, idAt, &slot) >= 0) return;
    indexed = true;
  }
  if (n >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(v);
  record.coreIdCount = n + 1;
  if (indexed) {
    coreIds_.insert(slot, n);
    coreIdsIndexed_ = n + 1;
  }
}

void TableRecorder::physicalId(std::string_view v) {
  // As findOrAddPackage: a new physical id becomes a package while there is
  // room; in every case it becomes the current record's physical id.
  xrLogicalTable& t = table_;
  auto idAt = [&t](int i) -> const std::string& { return t.packages[i].physicalId; };
  std::size_t slot = 0;
  if (packages_.find(v, idAt, &slot) < 0 && t.packageCount >= 0 &&
      t.packageCount < xrLogicalTable::kCapacity) {
    t.packages[t.packageCount].physicalId.assign(v);
    packages_.insert(slot, t.packageCount);
    ++t.packageCount;
  }
  t.records[t.current].physicalId.assign(v);
}

// ---------------------------------------------------------------------------
// The 6.0 scan's lists of distinct texts

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
