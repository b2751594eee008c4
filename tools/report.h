// What xrprocdetect prints: a report for one generation, a table for
// several, or JSON for either.
#ifndef XRPROCDETECTOR_TOOLS_REPORT_H
#define XRPROCDETECTOR_TOOLS_REPORT_H

#include <xrprocdetector/detect.h>

#include "options.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace xrprocdetect {

using namespace xrprocdetector;

// Where the counts came from: this machine, a saved /proc/cpuinfo (`file`,
// "-" for standard input), or a snapshot (`file` is its directory).
struct Input {
  bool live = true;
  bool snapshot = false;
  std::string file;
  // The kernel's topology: live and on a snapshot, never on a saved
  // /proc/cpuinfo alone.
  std::optional<KernelTopology> kernel;
  std::optional<Topology> topology;             // where there is a kernel row
  std::optional<std::string> savedAt, savedBy;  // a snapshot's
};

// One line for a budget: "usable 0-1 (2 processors), CPU quota 1.5
// processors, effective 2", or a JSON object on a line of its own: with
// `in`, schema 2's, which names the input and its machine and the time.
std::string budgetLine(const Budget& b, bool json, const Input* in = nullptr);

// One line a processor, as lscpu -p writes them, under a "#" header:
// number, package, die, core, thread, kind, online, usable, NUMA node, L3.
std::string cpuLines(const Topology& t);
// The place kind of OMP_PLACES's abstract name ("threads", "cores",
// "ll_caches", "numa_domains", "sockets"), or nothing.
std::optional<PlaceKind> placeKind(const std::string& name);
// One line a kind of cache, as lscpu -C writes them, with its instances.
std::string cacheLines(const Topology& t);
// A picture of the machine, as a tree: packages, NUMA nodes, last-level
// caches, cores and their processors, what this process may use marked.
std::string drawing(const Topology& t);

// The machine (the kernel's topology and what this process may use of it),
// then a few lines for one generation: its name, the counts, the states in
// words.
std::string humanReport(const Detection& row, const Input& source);
// The machine, then one line a generation, the same columns for each,
// under a header.
std::string table(const std::vector<Detection>& rows, const Input& source);
// What --summary adds after the report or table: each generation's
// printSummary output, as it wrote it.
std::string summaries(const std::vector<Detection>& rows);
// JSON Lines of `schema` 2: one object a row on a line of its own, every
// key in every row, null where a row has no value. Numbers are numbers.
// Schema 1, the shape of version 2.1: one object for a row, or an array of
// objects (`lines`: JSON Lines); "summary" there only `withSummary`,
// "kernel" and "agreesWithKernel" only with a kernel row.
std::string json(const std::vector<Detection>& rows, const Input& source, bool asArray,
                 bool withSummary, bool lines, int schema);
// The view of the input's topology that `o` asks for, as a line of JSON:
// its processors (--cpus), every cache instance (--caches), the whole
// kernel row the picture is drawn from (--draw), or the places (--places).
std::string viewJson(const Input& in, const Options& o);

// A CPU quota in processors, with as few digits as read back exactly.
std::string quotaText(double quota);
// The core kinds, e.g. "6 performance cores (12 logical processors), 8
// efficiency cores (8 logical processors)".
std::string coreKindsWords(const KernelTopology& k);

// Rows of cells in columns two blanks apart, each as wide as its widest
// cell; a column whose `rightAligned` entry is true (none when null) is
// aligned to the right. Blanks at a line's end are dropped.
std::string aligned(const std::vector<std::vector<std::string>>& cells, const bool* rightAligned);

// `text` made fit to print, whatever the machine wrote into it. In a text
// (`json` false), the bytes of what is not valid UTF-8 and of the control
// characters but the line feed (C0, DEL, C1) are each written as \xHH, so
// that no word from the machine moves the terminal's cursor or breaks the
// terminal's UTF-8. In JSON (the inside of a string literal), `"` and `\`
// are escaped, line feeds and tabs as \n and \t, the other control
// characters as \u00XX, and each byte that is not part of valid UTF-8 as
// \u00XX of its own value (the character Latin-1 gives that byte): the
// output is valid JSON and UTF-8, and every byte can still be read off it.
std::string escaped(std::string_view text, bool json = false);

// `text` as a JSON string.
inline std::string quoted(const std::string& text) {
  return "\"" + escaped(text, true) + "\"";
}

// A JSON object on one line, its keys in the order added.
class JsonObject {
 public:
  void add(const char* key, const std::string& rawValue) {
    // Appended part by part: a value may be a whole kernel row.
    ((text_ += text_.size() == 1 ? "\"" : ", \"") += key) += "\": ";
    text_ += rawValue;
  }
  void number(const char* key, long long value) { add(key, std::to_string(value)); }
  void string(const char* key, const std::string& value) { add(key, quoted(value)); }
  void stringOrNull(const char* key, bool have, const std::string& value) {
    add(key, have ? quoted(value) : "null");
  }
  template <class T, class Show>
  void maybe(const char* key, const std::optional<T>& value, Show show) {
    add(key, value ? show(*value) : "null");
  }
  // The object's text, taken: the object is done with.
  std::string done() { return std::move(text_ += '}'); }

 private:
  std::string text_ = "{";
};

// A hyperThreadState in words: "not capable", "disabled", "enabled", ...
const char* stateWords(int state);

// Whether packages, cores or logical processors differ from the kernel's.
bool countsDiffer(const Agreement& a);
// Whether all three were compared and agree.
bool countsAgree(const Agreement& a);

}  // namespace xrprocdetect

#endif  // XRPROCDETECTOR_TOOLS_REPORT_H
