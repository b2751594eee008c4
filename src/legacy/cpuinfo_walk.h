// The one walk over the words of /proc/cpuinfo that every scan shares, and
// the counting of the generations that read the file. What a scan does with
// the values it finds is up to its recorder; the walk itself is the same for
// all.
//
// A pass seeks the next of the words "processor", "cpu", "core", "physical",
// then tests the word in hand against them in that order, each test seeing
// the word as the previous one left it:
//   processor : V            -> recorder.processor(V)
//   cpu cores : V            -> recorder.cpuCores(V)   (cpu X, X not "cores": pass ends)
//   core id : V              -> recorder.coreId(V)     (core X, X not "id": pass ends)
//   physical id : V          -> recorder.physicalId(V) (physical X, X not "id": pass ends)
// The colon may come any number of words later, on any line. Passes repeat
// until end of file, which is the only exit test, so at the end of the input
// the word in hand (the last word read) is what each remaining read yields.
#ifndef XRPROCDETECTOR_INTERNAL_CPUINFO_WALK_H
#define XRPROCDETECTOR_INTERNAL_CPUINFO_WALK_H

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "xrprocdetector/xrprocdetector.h"

namespace xrprocdetector {
namespace detail {

template <class Reader, class Recorder>
void walkCpuinfo(Reader& in, Recorder& recorder) {
  // Each trigger word, the word that must follow it (none after
  // "processor") and the recorder's member that takes the value.
  struct Field {
    std::string_view trigger;
    std::string_view next;
    void (Recorder::*record)(std::string_view);
  };
  static const Field kFields[] = {{"processor", "", &Recorder::processor},
                                  {"cpu", "cores", &Recorder::cpuCores},
                                  {"core", "id", &Recorder::coreId},
                                  {"physical", "id", &Recorder::physicalId}};
  do {
    in.readUntilTrigger();
    for (const Field& f : kFields) {
      if (in.word() != f.trigger) continue;
      if (!f.next.empty()) in.read();
      // A trigger word followed by another word ends the pass.
      if (!f.next.empty() && in.word() != f.next) break;
      in.readUntilColon();
      in.read();
      (recorder.*f.record)(in.word());
    }
  } while (!in.eof());
}

struct CpuinfoCounts {
  int logical = 0;
  int physical = 0;
  int cores = 0;
};

// A scan's counts into the detector's logicalCount, physicalCount and
// coreCount.
inline void storeCounts(XrProcDetector& detector, const CpuinfoCounts& counts) {
  detector.logicalCount = counts.logical;
  detector.physicalCount = counts.physical;
  detector.coreCount = counts.cores;
}

// Find or add processor, set cpu cores, add core id and find or add package:
// the one implementation of the table operations, which the scans and
// xrLogicalTable's member operations both run. Texts are found by linear
// search from the first entry, but for processor numbers, of which a table
// holds up to 256, and for the core ids of a record that has many (the last
// record collects those of every processor past the 256th): those are found
// through indexes, set up from the table when first needed and brought up to
// date before each search, so a recorder made for one value sees a table
// filled by any means. Only whether a text is there is asked of them, so the
// first equal text still wins.
class TableRecorder {
 public:
  explicit TableRecorder(xrLogicalTable& table) : table_(table) {}
  void processor(std::string_view v);
  void cpuCores(std::string_view v);
  void coreId(std::string_view v);
  void physicalId(std::string_view v);

 private:
  xrLogicalTable& table_;
  std::unordered_map<std::string_view, std::int32_t> processors_;  // first record of each
  std::int32_t indexed_ = 0;  // records 0 .. indexed_ - 1 are in processors_
  // The core ids of records with many, by record: views of copies that
  // stay put, as the record's own texts may move when it grows.
  struct CoreIds {
    std::deque<std::string> texts;
    std::unordered_set<std::string_view> ids;
    std::int32_t indexed = 0;  // the record's first `indexed` core ids are in ids
  };
  std::unordered_map<std::int32_t, CoreIds> coreIds_;
};

// The table scan of 6.1, 7.0 and the default detector: distinct processor
// numbers, distinct physical ids (at most 256), and per package the
// cpu-cores value of its first record, summed (0 without packages). Each
// generation makes of these what it makes of them.
template <class Reader>
CpuinfoCounts countTable(Reader& in) {
  // About 52 KB: on the heap, never on the caller's stack. `new T` rather
  // than make_unique, which would clear it before the initializers run.
  std::unique_ptr<xrLogicalTable> table(new xrLogicalTable);
  TableRecorder recorder(*table);
  walkCpuinfo(in, recorder);
  table->derivePackageCores();
  return {table->logical, table->packageCount, table->totalCores()};
}

// The 6.0 scan's lists of distinct texts over the whole file. A list keeps
// at most 256 values: a 257th distinct value is not recorded, so that count
// stays at 256.
class DistinctTextLists {
 public:
  struct List {
    List() { values.reserve(256); }  // never moved: `seen` views their texts
    void record(std::string_view v);
    std::vector<std::string> values;
    std::unordered_set<std::string_view> seen;
  };

  void processor(std::string_view v) { processorIds.record(v); }
  void cpuCores(std::string_view v) { cpuCoresText.assign(v); }
  void coreId(std::string_view v) { coreIdList.record(v); }
  void physicalId(std::string_view v) { physicalIds.record(v); }

  std::string cpuCoresText{"1"};  // kept as the scan reads it; counts nothing
  List processorIds;
  List physicalIds;
  List coreIdList;
};

// 6.0: how many distinct processor, physical-id and core-id texts.
template <class Reader>
CpuinfoCounts count60(Reader& in) {
  DistinctTextLists lists;
  walkCpuinfo(in, lists);
  return {static_cast<int>(lists.processorIds.values.size()),
          static_cast<int>(lists.physicalIds.values.size()),
          static_cast<int>(lists.coreIdList.values.size())};
}

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_CPUINFO_WALK_H
