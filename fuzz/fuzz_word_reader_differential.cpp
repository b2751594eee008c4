// WordReader against the reference, `stream >> word` on a std::istringstream
// in the classic locale, over the same bytes: the bytes as a text in memory,
// and the bytes as a file read through a buffer of a size the input picks
// (down to one byte, so that words straddle refills and grow the buffer, and
// the default size, whose buffer passes from reader to reader), with the
// vector search for trigger words that the input picks.
// Any difference in the words handed out, in the end-of-file state, or in
// what the full scans make of the bytes is a failure. The full scans are
// also checked against plain models of the tables (searches from the first
// entry), so the indexes that speed the lookups up are checked with them.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "xrprocdetector/internal/cpuinfo_walk.h"
#include "xrprocdetector/internal/word_reader.h"

using xrprocdetector::detail::DistinctTextLists;
using xrprocdetector::detail::StreamWordReader;
using xrprocdetector::detail::WordReader;

namespace {

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "readers disagree: %s\n", what);
  std::abort();
}

// The bytes as a file that WordReader opens by name: a memory file, written
// anew for each input.
class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("cpuinfo", 0)) {
    if (fd_ >= 0) path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  bool write(std::string_view bytes) {
    if (fd_ < 0 || ftruncate(fd_, 0) != 0) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n =
          pwrite(fd_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
      if (n <= 0) return false;
      done += static_cast<std::size_t>(n);
    }
    return true;
  }
  const char* path() const { return path_.c_str(); }

 private:
  int fd_;
  std::string path_;
};

// The reference: `stream >> word` over a std::istringstream of the bytes in
// the classic locale.
struct StreamHolder {
  explicit StreamHolder(std::string_view bytes) : in(std::string(bytes)) {
    in.imbue(std::locale::classic());
  }
  std::istringstream in;
};
struct ReferenceReader : private StreamHolder, public StreamWordReader {
  explicit ReferenceReader(std::string_view bytes) : StreamHolder(bytes), StreamWordReader(in) {}
};

// One step of a read script; the same step on every reader.
template <class Reader>
void step(Reader& r, unsigned op) {
  switch (op & 3) {
    case 1:
      r.readUntilTrigger();
      break;
    case 2:
      r.readUntilColon();
      break;
    default:
      r.read();
      break;
  }
}

// A read script taken from the input's first bytes, two bits a step, run on
// the three readers until all are at end of file, and a few steps beyond.
void compareScripts(std::string_view bytes, const char* path, std::size_t bufferSize) {
  ReferenceReader reference(bytes);
  WordReader text(bytes);
  WordReader file(path, bufferSize);
  const std::size_t programBytes = bytes.size() < 16 ? bytes.size() : 16;
  // Every step reads at least once, and every read takes a word or sets end
  // of file, so the readers are at the end after bytes.size() + 1 steps.
  const std::size_t maxSteps = bytes.size() + 4;
  std::size_t afterEnd = 0;
  for (std::size_t i = 0; i < maxSteps && afterEnd < 3; ++i) {
    unsigned op = 0;
    if (programBytes > 0) {
      const std::size_t bit = 2 * i % (8 * programBytes);
      op = static_cast<unsigned char>(bytes[bit / 8]) >> (bit % 8);
    }
    step(reference, op);
    step(text, op);
    step(file, op);
    require(text.word() == reference.word(), "word (text source)");
    require(file.word() == reference.word(), "word (file source)");
    require(text.eof() == reference.eof(), "end of file (text source)");
    require(file.eof() == reference.eof(), "end of file (file source)");
    if (reference.eof()) ++afterEnd;
  }
  require(afterEnd > 0, "the reference reached end of file");
}

// A plain model of the processor and package tables: searches from the first
// entry, and the limits this project chose at 256.
struct TableModel {
  static constexpr std::size_t kCapacity = 256;
  struct Record {
    std::string processorNumber{"x"}, cpuCores{"x"}, physicalId{"x"};
    std::vector<std::string> coreIds;
  };
  std::vector<Record> records = std::vector<Record>(kCapacity);
  std::vector<std::string> packages;
  std::size_t logical = 0;
  std::size_t current = 0;

  void processor(std::string_view v) {
    for (std::size_t i = 0; i < logical; ++i) {
      if (records[i].processorNumber == v) {
        current = i;
        return;
      }
    }
    if (logical == kCapacity) return;
    records[logical].processorNumber = std::string(v);
    current = logical++;
  }
  void cpuCores(std::string_view v) { records[current].cpuCores = std::string(v); }
  void coreId(std::string_view v) {
    auto& ids = records[current].coreIds;
    for (const auto& id : ids) {
      if (id == v) return;
    }
    if (ids.size() < kCapacity) ids.emplace_back(v);
  }
  // Each package's cores: strtol of the cpu-cores text of the first record
  // that carries its physical id, narrowed to 32 bits; 0 if none does.
  std::vector<std::int32_t> packageCores() const {
    std::vector<std::int32_t> cores;
    for (const auto& p : packages) {
      std::int32_t c = 0;
      for (std::size_t i = 0; i < logical; ++i) {
        if (records[i].physicalId == p) {
          const long v = std::strtol(records[i].cpuCores.c_str(), nullptr, 10);
          c = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<unsigned long>(v)));
          break;
        }
      }
      cores.push_back(c);
    }
    return cores;
  }
  void physicalId(std::string_view v) {
    bool known = false;
    for (const auto& p : packages)
      known = known || p == v;
    if (!known && packages.size() < kCapacity) packages.emplace_back(v);
    records[current].physicalId = std::string(v);
  }
};

void requireSameTable(const xrLogicalTable& t, const TableModel& m, const char* source) {
  require(t.logical == static_cast<std::int32_t>(m.logical), source);
  require(t.current == static_cast<std::int32_t>(m.current), source);
  require(t.packageCount == static_cast<std::int32_t>(m.packages.size()), source);
  for (std::size_t i = 0; i < TableModel::kCapacity; ++i) {
    const xrLogicalData& r = t.records[i];
    const TableModel::Record& e = m.records[i];
    require(r.processorNumber == e.processorNumber, source);
    require(r.cpuCores == e.cpuCores, source);
    require(r.physicalId == e.physicalId, source);
    require(r.coreIdCount == static_cast<std::int32_t>(e.coreIds.size()), source);
    for (std::size_t j = 0; j < e.coreIds.size(); ++j)
      require(r.coreIds[static_cast<int>(j)] == e.coreIds[j], source);
  }
  for (std::size_t j = 0; j < TableModel::kCapacity; ++j) {
    const std::string& expected = j < m.packages.size() ? m.packages[j] : std::string("x");
    require(t.packages[j].physicalId == expected, source);
  }
}

// The 6.0 lists: distinct texts in order of first appearance, 256 at most.
struct ListsModel {
  std::vector<std::string> lists[3];
  static void record(std::vector<std::string>& list, std::string_view v) {
    for (const auto& e : list) {
      if (e == v) return;
    }
    if (list.size() < 256) list.emplace_back(v);
  }
  void processor(std::string_view v) { record(lists[0], v); }
  void cpuCores(std::string_view) {}
  void coreId(std::string_view v) { record(lists[2], v); }
  void physicalId(std::string_view v) { record(lists[1], v); }
};

void requireSameLists(const DistinctTextLists& l, const ListsModel& m, const char* source) {
  const DistinctTextLists::List* lists[3] = {&l.processorIds, &l.physicalIds, &l.coreIdList};
  for (int k = 0; k < 3; ++k) {
    require(lists[k]->count == static_cast<int>(m.lists[k].size()), source);
    for (std::size_t i = 0; i < m.lists[k].size(); ++i)
      require(lists[k]->values[i] == m.lists[k][i], source);
  }
}

// What each full scan makes of the bytes over one kind of reader.
struct Scans {
  std::unique_ptr<xrLogicalTable> table;
  std::unique_ptr<DistinctTextLists> lists;
  xrprocdetector::detail::CpuinfoCounts counts;
};

template <class MakeReader>
Scans scanAll(const MakeReader& makeReader) {
  Scans s;
  auto forTable = makeReader();
  s.table = xrprocdetector::detail::scanCpuinfoTable(*forTable);
  auto forLists = makeReader();
  s.lists = std::make_unique<DistinctTextLists>();
  xrprocdetector::detail::walkCpuinfo(*forLists, *s.lists);
  auto forCounts = makeReader();
  s.counts = xrprocdetector::detail::count60(*forCounts);
  return s;
}

void compareScans(std::string_view bytes, const char* path, std::size_t bufferSize) {
  TableModel tableModel;
  ListsModel listsModel;
  {
    ReferenceReader reference(bytes);
    struct Both {
      TableModel& t;
      ListsModel& l;
      void processor(std::string_view v) { t.processor(v), l.processor(v); }
      void cpuCores(std::string_view v) { t.cpuCores(v), l.cpuCores(v); }
      void coreId(std::string_view v) { t.coreId(v), l.coreId(v); }
      void physicalId(std::string_view v) { t.physicalId(v), l.physicalId(v); }
    } both{tableModel, listsModel};
    xrprocdetector::detail::walkCpuinfo(reference, both);
  }

  Scans scans[3] = {
      scanAll([&] { return std::make_unique<ReferenceReader>(bytes); }),
      scanAll([&] { return std::make_unique<WordReader>(bytes); }),
      scanAll([&] { return std::make_unique<WordReader>(path, bufferSize); }),
  };
  const char* const sources[3] = {"scans over the reference", "scans over the text",
                                  "scans over the file"};
  for (int k = 0; k < 3; ++k) {
    requireSameTable(*scans[k].table, tableModel, sources[k]);
    requireSameLists(*scans[k].lists, listsModel, sources[k]);
    require(scans[k].counts.logical == static_cast<int>(listsModel.lists[0].size()) &&
                scans[k].counts.physical == static_cast<int>(listsModel.lists[1].size()) &&
                scans[k].counts.cores == static_cast<int>(listsModel.lists[2].size()),
            sources[k]);
    // Package cores and their total, from each table.
    scans[k].table->derivePackageCores();
    const auto cores = tableModel.packageCores();
    std::uint32_t total = 0;
    for (std::size_t j = 0; j < cores.size(); ++j) {
      require(scans[k].table->packages[j].cores == cores[j], sources[k]);
      total += static_cast<std::uint32_t>(cores[j]);
    }
    require(scans[k].table->totalCores() == static_cast<std::int32_t>(total), sources[k]);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static MemoryFile file;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  if (!file.write(bytes)) return 0;
  // The file's buffer size: small ones make words straddle refills; the
  // default one is taken over from the thread's previous reader, with what
  // that reader left in it past the new input's bytes.
  static const std::size_t kBufferSizes[] = {
      1, 2, 3, 5, 8, 16, 17, 64, 100, 4096, 65536, WordReader::kDefaultBufferSize};
  const std::size_t pick = size == 0 ? 0 : static_cast<unsigned char>(bytes[size - 1]);
  std::size_t bufferSize = kBufferSizes[pick % (sizeof kBufferSizes / sizeof *kBufferSizes)];
  // At most some hundreds of refills, so that large inputs stay quick.
  while (bufferSize * 256 < size)
    bufferSize *= 2;
  // Each search for trigger words (SSE2, AVX2, AVX-512, as far as the
  // processor has them), in turn over the inputs.
  xrprocdetector::detail::limitSearchForTesting(static_cast<int>(pick / 16 % 3));
  compareScripts(bytes, file.path(), bufferSize);
  compareScans(bytes, file.path(), bufferSize);
  return 0;
}
