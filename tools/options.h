// The command line of xrprocdetect.
#ifndef XRPROCDETECTOR_TOOLS_OPTIONS_H
#define XRPROCDETECTOR_TOOLS_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace xrprocdetect {

struct Options {
  // The generation to run (-a): "default", "7.0", "6.1", "6.0" or "5.3".
  std::string algorithm = "default";
  bool all = false;  // --all: every generation, one row each
  // --version-index: the index given to the constructors that take one.
  std::optional<std::int32_t> versionIndex;
  // -d/--debug[=LEVEL]: the detectors' own debug lines to standard error.
  std::optional<std::int32_t> debugLevel;
  bool echo = false;     // --echo: the detectors' echo switch instead
  bool summary = false;  // --summary: printSummary after detection
  bool json = false;     // -J/--json
  // --cpuinfo FILE: count saved /proc/cpuinfo texts ("-": standard input);
  // --snapshot DIR: run on saved snapshots. Each option may be repeated,
  // and the operands are more inputs of the kind given.
  std::vector<std::string> cpuinfo;
  std::vector<std::string> snapshot;
  std::optional<std::string> save;  // --save DIR: save a snapshot
  bool check = false;               // --check: exit status 3 when a count differs from the kernel's
  bool tally = false;               // --tally: agreement with the kernel over all inputs
  bool cpus = false;                // --cpus: one line a processor, as lscpu -p writes them
  std::optional<std::string> places;  // --places=KIND: OMP_PLACES for this process
  bool caches = false;                // --caches: one line a kind of cache
  bool draw = false;                  // --draw: a picture of the machine
  // Whether the options ask for a view of the topology rather than detection.
  bool view() const { return cpus || places || caches || draw; }
  std::optional<double> watch;  // --watch[=SECONDS]: the budget, again each time it changes
  bool jsonLines = false;       // --json-lines
  int jsonSchema = 2;           // --json-schema=N: 1, the shape of 2.1, for one more version
  bool help = false;
  bool version = false;
};

// What parsing gave: the options, or a one-line error (without the program
// name or a line end) for exit status 2.
struct Parsed {
  Options options;
  std::string error;
};

Parsed parseOptions(int argc, char** argv);

// The text of --help.
std::string usageText();

}  // namespace xrprocdetect

#endif  // XRPROCDETECTOR_TOOLS_OPTIONS_H
