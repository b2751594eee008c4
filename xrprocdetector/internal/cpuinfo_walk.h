// The one walk over the words of /proc/cpuinfo that every scan shares. What
// a scan does with the values it finds is up to its recorder; the walk itself
// is the same for all.
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

#include <memory>
#include <string>
#include <string_view>

#include "xrprocdetector/internal/text_index.h"
#include "xrprocdetector/xrprocdetector.h"

namespace xrprocdetector {
namespace detail {

template <class Reader, class Recorder>
void walkCpuinfo(Reader& in, Recorder& recorder) {
  do {
    in.readUntilTrigger();
    if (in.word() == "processor") {
      in.readUntilColon();
      in.read();
      recorder.processor(in.word());
    }
    if (in.word() == "cpu") {
      in.read();
      if (in.word() != "cores") continue;
      in.readUntilColon();
      in.read();
      recorder.cpuCores(in.word());
    }
    if (in.word() == "core") {
      in.read();
      if (in.word() != "id") continue;
      in.readUntilColon();
      in.read();
      recorder.coreId(in.word());
    }
    if (in.word() == "physical") {
      in.read();
      if (in.word() != "id") continue;
      in.readUntilColon();
      in.read();
      recorder.physicalId(in.word());
    }
  } while (!in.eof());
}

// Records values into the processor and package tables: the one
// implementation of the table operations. The scans that fill the tables
// record the walk's values through one recorder; xrLogicalTable's member
// operations each run one value through a recorder of their own.
//
// A recorder finds texts in the tables' lists through ListFinders of its
// own. Over a scan it is the only writer of the tables, so its indexes stay
// in step with them from one value to the next; a recorder made for one
// value indexes a long list afresh, whatever was done to the table before.
class TableRecorder {
 public:
  explicit TableRecorder(xrLogicalTable& table) : table_(table) {}
  TableRecorder(const TableRecorder&) = delete;
  TableRecorder& operator=(const TableRecorder&) = delete;

  // Find or add processor: the record numbered `v` becomes current; a new
  // number is added while the table has room.
  void processor(std::string_view v);
  // Set cpu cores: `v` replaces the current record's cpu-cores text.
  void cpuCores(std::string_view v) { table_.records[table_.current].cpuCores.assign(v); }
  // Add core id: `v` joins the current record's core ids unless there, while
  // the record has room.
  void coreId(std::string_view v);
  // Find or add package: a new physical id becomes a package while there is
  // room; in every case it becomes the current record's physical id.
  void physicalId(std::string_view v);

 private:
  xrLogicalTable& table_;
  ListFinder processors_;  // records[0, logical) by processor number
  ListFinder packages_;    // packages[0, packageCount) by physical id
  ListFinder coreIds_;     // the core ids of the record last searched
};

// The tables of one scan, on the heap (about 52 KB), filled by the walk.
// Made with `new T` rather than make_unique: every member has an initializer,
// and value-initialization would first clear the 52 KB only to have the
// initializers write it again.
template <class Reader>
std::unique_ptr<xrLogicalTable> scanCpuinfoTable(Reader& in) {
  std::unique_ptr<xrLogicalTable> table(new xrLogicalTable);
  TableRecorder recorder(*table);
  walkCpuinfo(in, recorder);
  return table;
}

// The 6.0 scan's lists of distinct texts: processor numbers, physical ids and
// core ids over the whole file. A list keeps at most 256 values: a 257th
// distinct value is not recorded, so that count stays at 256. Long lists are
// searched through a ListFinder, so recording a value costs about the same
// with 256 entries as with one; the lists hold the same values in the same
// order as a search from the first entry would give.
class DistinctTextLists {
 public:
  static constexpr int kCapacity = 256;
  static_assert(kCapacity <= TextIndex::kMaxTexts, "the index holds every entry of a list");
  struct List {
    std::string values[kCapacity];
    int count = 0;
    ListFinder finder;  // over values[0, count)
    void record(std::string_view v);
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

// Each /proc/cpuinfo generation's counting, over any reader. These are the
// scans the detectors run; they are templates so that the same code can run
// over the reference StreamWordReader as well.
struct CpuinfoCounts {
  int logical = 0;
  int physical = 0;
  int cores = 0;
};

// 6.0: distinct texts of the three kinds.
template <class Reader>
CpuinfoCounts count60(Reader& in) {
  std::unique_ptr<DistinctTextLists> lists(new DistinctTextLists);  // as the tables above
  walkCpuinfo(in, *lists);
  return {lists->processorIds.count, lists->physicalIds.count, lists->coreIdList.count};
}

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_CPUINFO_WALK_H
