// xrprocdetector: processor topology detection for Linux on x86-64.
//
// A host obtains a detector (from getOSProcDetector() or by constructing one
// of the generation classes), calls getProcData() once, reads the five result
// fields and deletes the detector through its XrProcDetector pointer. Every
// step and finding is reported as debug lines through tzPrint(), at the level
// and to the destinations chosen when the detector was created.
//
// This header declares the framework shared by every generation: the debug
// output object, the detector base class with its result fields and seven
// virtual operations, the factory, and the working tables that the
// /proc/cpuinfo scans fill.
#ifndef XRPROCDETECTOR_XRPROCDETECTOR_H
#define XRPROCDETECTOR_XRPROCDETECTOR_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include <xrprocdetector/export.h>

// How much a detector writes (as the object's level) and how detailed a
// message is (as a message's level). Any 32-bit value is accepted as an
// object level: above 2 behaves like 2, negative silences all but level 0.
enum tz_debuglevel : std::int32_t {
  tzDebugNone = 0,   // message: always to standard output; object: silent
  tzDebugSteps = 1,  // steps, findings, totals and banners
  tzDebugTrace = 2,  // the entry trace of the /proc/cpuinfo word scans
};

// One generation of the detection algorithm: a row of the short-name table
// ("5.3", "6.0", "6.1", "7.0", "7.1", "8.0", "Tip"). Values outside 0..6 are
// a caller error for the default detector, which prints the row's name.
enum __tz_procInfoIndex : std::int32_t {
  tzProcInfo53 = 0,
  tzProcInfo60 = 1,
  tzProcInfo61 = 2,
  tzProcInfo70 = 3,
  tzProcInfo71 = 4,  // the default
  tzProcInfo80 = 5,
  tzProcInfoTip = 6,
};

// Debug output shared by every detector.
class XRPROCDETECTOR_API XrProcObject {
 public:
  XrProcObject(tz_debuglevel level, unsigned echo, FILE* stream, char* text);

  // printf-style message. A message of level 1 or 2 is written when the
  // object's level is at least the message's: to standard output when
  // echoToStdout is set, then to debugStream when it is not null. A level-0
  // message always goes to standard output, and to the stream unless the
  // object's level is negative. Nothing is added to the text and nothing is
  // flushed.
  void tzPrint(tz_debuglevel level, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // Writes the upper-case hexadecimal digits of the first `length` bytes of
  // `in` to `out` and returns 2 * length. Into a separate buffer (which must
  // hold 2 * length + 1 bytes) the zero byte follows the last digit. In place
  // (out == in) the bytes are expanded from the last to the first and the zero
  // byte is written at out[0], so the result reads as an empty string while
  // out[1] onwards keep the other digits. A negative length is not supported.
  int hexify(char* out, const char* in, int length);

  tz_debuglevel debugLevel;
  FILE* debugStream;  // not owned: never opened, flushed or closed here
  char* callerText;   // kept for the creator; never read or freed here
  std::uint32_t echoToStdout;
};

// The detector base class. Counts not detected stay 65535 and states not
// determined stay 15; a step that does not run leaves them as they are.
//
// Use from one thread at a time, and run one detection at a time in a
// process: the default detector changes the calling thread's processor
// affinity for a moment and the process-wide SIGSEGV disposition (see
// xrprocdetector_linux32.h).
class XRPROCDETECTOR_API XrProcDetector : public XrProcObject {
 public:
  // Constructor A: procInfoIndex becomes 4 ("7.1").
  XrProcDetector(tz_debuglevel level, unsigned echo, FILE* stream, char* text);
  // Constructor B: procInfoIndex takes `index`.
  XrProcDetector(tz_debuglevel level, unsigned echo, __tz_procInfoIndex index, FILE* stream,
                 char* text);

  // Slot 0: runs the generation's detection; negative means the counts are
  // not to be trusted. The base class detects nothing and returns -1.
  virtual int getProcData();
  // Slot 1: writes the hyper-threading verdict and the three totals at level
  // 1 (nothing when debugLevel <= 0); stores nothing; returns 0.
  virtual int printSummary();
  // Slot 2: the configured processor count; writes the configured and the
  // online count as two level-1 lines.
  virtual int bosGetLogicalProcessorCount();
  // Slot 3: as slot 2, but returns the online processor count.
  virtual int bosGetOnlineProcessorCount();
  // Slot 4: the base sets all three counts from slot 2 and returns 0.
  virtual int platformProcInfo();
  // Slot 5: stores the hyper-threading verdict of the three counts in
  // hyperThreadState and writes it as printSummary does; returns 0.
  virtual int platformHyperThreading();
  // Slot 6: the base does nothing and returns 0.
  virtual int platformVM();
  // After the seven operations, so their slot order is unchanged: deleting
  // any detector through an XrProcDetector pointer is well defined.
  virtual ~XrProcDetector() = default;

  // The generic sequence: platformProcInfo, then (unless it failed)
  // platformHyperThreading and platformVM, whose results are ignored.
  // Returns -1 when platformProcInfo failed, 0 otherwise. Writes nothing.
  int getUnixProcData();

  std::int32_t logicalCount;      // total logical processors
  std::int32_t physicalCount;     // total processor packages
  std::int32_t spareCount1;       // reserved; stays 65535
  std::int32_t spareCount2;       // reserved; stays 65535
  std::int32_t coreCount;         // total cores
  std::int32_t hyperThreadState;  // 0 none, 1 disabled, 2 enabled, 3 over 2x cores, 15 unknown
  std::uint8_t vmState;           // 0 no VM, 1 VMware, 15 unknown
  __tz_procInfoIndex procInfoIndex;
};

// The factory: a new default detector (XrProcDetectorLinux32) that writes
// nothing and has version index 4. The caller deletes it. Never null.
XRPROCDETECTOR_API XrProcDetector* getOSProcDetector();

// One logical processor as /proc/cpuinfo describes it: a record of the
// processor table that the 6.1, 7.0 and default scans fill. Every text is "x"
// until a value is seen; "x" counts as 0 cores.
class XRPROCDETECTOR_API xrLogicalData {
 public:
  // The core-id list: 256 texts, each "x" until written. Slot 0 is held in
  // the record itself, the others are set up when first written, so a record
  // that names one core id (as most do) holds one text instead of 256 and
  // needs no memory of its own; reading an unwritten slot gives "x" all the
  // same.
  class XRPROCDETECTOR_API CoreIdArray {
   public:
    static constexpr int kCapacity = 256;
    CoreIdArray() = default;
    CoreIdArray(const CoreIdArray&) = delete;
    CoreIdArray& operator=(const CoreIdArray&) = delete;
    ~CoreIdArray();
    // Slot i (0 <= i < 256): its text, or "x" when never written.
    const std::string& operator[](int i) const;
    // Writes `value` into the lowest unwritten slot. Slots are written in
    // order only: the record's coreIdCount is that slot's index.
    void append(std::string_view value);

   private:
    std::string first_;              // slot 0, once written
    std::vector<std::string> rest_;  // slots 1 .. written_ - 1
    std::int32_t written_ = 0;       // slots written, from slot 0
  };

  xrLogicalData() = default;
  xrLogicalData(const xrLogicalData&) = delete;
  xrLogicalData& operator=(const xrLogicalData&) = delete;
  // Releases the texts in the reverse of their order below.
  ~xrLogicalData() = default;

  std::string processorNumber{"x"};  // the word after "processor" ":"
  std::string cpuCores{"x"};         // the last word after "cpu" "cores" ":"
  std::int32_t coreIdCount = 0;      // entries of coreIds in use
  CoreIdArray coreIds;               // distinct words after "core" "id" ":"
  std::string physicalId{"x"};       // the last word after "physical" "id" ":"
};

// One processor package: an entry of the package table.
struct xrPackageData {
  std::string physicalId{"x"};  // a distinct physical-id text
  std::int32_t cores = 0;       // cpu-cores of the package's first record
};

// The per-call working tables of the /proc/cpuinfo scans: 256 processor
// records and 256 package entries, with the counters *logical*, *packages*
// and *current*. About 52 KB: scans allocate them on the heap, never on the
// caller's stack. Texts are compared by exact equality ("0" is not "00").
class XRPROCDETECTOR_API xrLogicalTable {
 public:
  static constexpr int kCapacity = 256;

  xrLogicalTable() = default;
  xrLogicalTable(const xrLogicalTable&) = delete;
  xrLogicalTable& operator=(const xrLogicalTable&) = delete;

  // Makes the record numbered `value` current, adding it when new.
  void findOrAddProcessor(std::string_view value);
  // Replaces the cpu-cores text of the current record.
  void setCpuCores(std::string_view value);
  // Adds `value` to the current record's core ids unless already there.
  void addCoreId(std::string_view value);
  // Adds `value` as a package when new and the table has room; in every case
  // it becomes the current record's physical id.
  void findOrAddPackage(std::string_view value);
  // Sets each package's cores to strtol(cpuCores) of the first record (in
  // table order) that carries its physical id; unnamed packages keep 0.
  void derivePackageCores();
  // The sum of the packages' cores, wrapping as 32-bit two's complement.
  std::int32_t totalCores() const;

  // Declared before the packages so that, as the tables are released, the
  // package entries go first (last to first), then the records.
  xrLogicalData records[kCapacity];
  xrPackageData packages[kCapacity];
  std::int32_t logical = 0;       // records in use
  std::int32_t packageCount = 0;  // package entries in use (*packages*)
  std::int32_t current = 0;       // record that the next value belongs to
};

#endif  // XRPROCDETECTOR_XRPROCDETECTOR_H
