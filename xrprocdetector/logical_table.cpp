// The processor and package tables that the /proc/cpuinfo scans fill.
#include <cstdlib>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/report.h"
#include "xrprocdetector/xrprocdetector.h"

namespace {
const std::string kNeverSeen{"x"};
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
  for (std::int32_t i = 0; i < logical; ++i) {
    if (records[i].processorNumber == value) {
      current = i;
      return;
    }
  }
  // The table holds 256 records. A 257th distinct processor number is not
  // added and *current* stays on the record it was on, so every value of
  // that block goes to the record before it; the 256 counted stay as they
  // were.
  if (logical >= kCapacity) return;
  records[logical].processorNumber.assign(value);
  current = logical;
  ++logical;
}

void xrLogicalTable::setCpuCores(std::string_view value) {
  records[current].cpuCores.assign(value);
}

void xrLogicalTable::addCoreId(std::string_view value) {
  xrLogicalData& record = records[current];
  for (std::int32_t i = 0; i < record.coreIdCount; ++i) {
    if (record.coreIds[i] == value) return;
  }
  // A record holds 256 core ids; a 257th distinct one is not added.
  if (record.coreIdCount >= xrLogicalData::CoreIdArray::kCapacity) return;
  record.coreIds.append(value);
  ++record.coreIdCount;
}

void xrLogicalTable::findOrAddPackage(std::string_view value) {
  std::int32_t i = 0;
  while (i < packageCount && i <= kCapacity - 1 && packages[i].physicalId != value)
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
      if (records[i].physicalId == packages[j].physicalId) {
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
  for (int i = 0; i < count; ++i) {
    if (values[i] == v) return;
  }
  // Each list holds 256 values: a 257th distinct one is not recorded and the
  // count stays at 256.
  if (count >= kCapacity) return;
  values[count].assign(v);
  ++count;
}

}  // namespace detail
}  // namespace xrprocdetector
