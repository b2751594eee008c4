#include "options.h"

#include "report.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <limits>

#include <xrprocdetector/detect.h>

namespace xrprocdetect {

namespace {

// Long options that have no short form.
enum : int {
  kAll = 256,
  kCpuinfo,
  kEcho,
  kSummary,
  kVersionIndex,
  kSave,
  kSnapshot,
  kCheck,
  kTally,
  kCpus,
  kPlaces,
  kCaches,
  kDraw,
  kWatch,
  kJsonLines,
  kJsonSchema,
};

const option kLongOptions[] = {
    {"algorithm", required_argument, nullptr, 'a'},
    {"all", no_argument, nullptr, kAll},
    {"cpuinfo", required_argument, nullptr, kCpuinfo},
    {"debug", optional_argument, nullptr, 'd'},
    {"echo", no_argument, nullptr, kEcho},
    {"json", no_argument, nullptr, 'J'},
    {"summary", no_argument, nullptr, kSummary},
    {"version-index", required_argument, nullptr, kVersionIndex},
    {"save", required_argument, nullptr, kSave},
    {"snapshot", required_argument, nullptr, kSnapshot},
    {"check", no_argument, nullptr, kCheck},
    {"tally", no_argument, nullptr, kTally},
    {"cpus", no_argument, nullptr, kCpus},
    {"places", required_argument, nullptr, kPlaces},
    {"caches", no_argument, nullptr, kCaches},
    {"draw", no_argument, nullptr, kDraw},
    {"watch", optional_argument, nullptr, kWatch},
    {"json-lines", no_argument, nullptr, kJsonLines},
    {"json-schema", required_argument, nullptr, kJsonSchema},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

// The leading ':' makes a missing argument ':' rather than '?'.
const char kShortOptions[] = ":a:d::JhV";

// A whole decimal number that fits in 32 bits, or nothing.
std::optional<std::int32_t> wholeNumber(const char* text) {
  if (text == nullptr || *text == '\0') return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < std::numeric_limits<std::int32_t>::min() ||
      value > std::numeric_limits<std::int32_t>::max())
    return std::nullopt;
  return static_cast<std::int32_t>(value);
}

// The options that only switch something on.
bool Options::*flagOf(int c) {
  static const std::pair<int, bool Options::*> kFlags[] = {
      {'J', &Options::json},       {'h', &Options::help},     {'V', &Options::version},
      {kAll, &Options::all},       {kCheck, &Options::check}, {kTally, &Options::tally},
      {kCpus, &Options::cpus},     {kEcho, &Options::echo},   {kSummary, &Options::summary},
      {kCaches, &Options::caches}, {kDraw, &Options::draw}};
  for (const auto& [option, flag] : kFlags) {
    if (option == c) return flag;
  }
  return nullptr;
}

// An option with a value (`written` as the user wrote it); the error, or "".
std::string takeValue(int c, const char* written, Options& o) {
  const std::string value = optarg != nullptr ? optarg : "";
  switch (c) {
    case 'a':
      if (!xrprocdetector::findGeneration(value))
        return "unknown algorithm '" + value + "'; choose default, 7.0, 6.1, 6.0 or 5.3";
      o.algorithm = value;
      return "";
    case 'd':
      o.debugLevel = optarg == nullptr ? std::optional<std::int32_t>(1) : wholeNumber(optarg);
      if (o.debugLevel) return "";
      // Named as the user wrote it: "--debug" or "-d".
      return std::string(written[0] == '-' && written[1] == '-' ? "--debug" : "-d") +
             " takes a whole number as its level, not '" + value + "'";
    case kCpuinfo:
      if (value.empty()) return "--cpuinfo needs a file name (or - for standard input)";
      o.cpuinfo.push_back(value);
      return "";
    case kSave:
    case kSnapshot:
      if (value.empty())
        return std::string(c == kSave ? "--save" : "--snapshot") + " needs a directory";
      if (c == kSave) o.save = value;
      if (c == kSnapshot) o.snapshot.push_back(value);
      return "";
    case kPlaces:
      if (!placeKind(value))
        return "--places takes threads, cores, ll_caches, numa_domains or sockets, not '" + value +
               "'";
      o.places = value;
      return "";
    case kJsonSchema:
      o.json = true, o.jsonSchema = value == "1" ? 1 : 2;
      return value == "1" || value == "2" ? "" : "--json-schema takes 1 or 2, not '" + value + "'";
    case kWatch: {
      char* end = nullptr;
      o.watch = optarg == nullptr ? 1.0 : std::strtod(optarg, &end);
      if (optarg == nullptr || (*end == '\0' && *o.watch >= 0.001 && *o.watch <= 86400)) return "";
      return "--watch takes seconds from 0.001 to 86400, not '" + value + "'";
    }
    default:  // kVersionIndex
      o.versionIndex = wholeNumber(optarg);
      if (!o.versionIndex) return "--version-index takes a whole number, not '" + value + "'";
      // The default detector prints the name of the index's row of its
      // seven-row version table, so only 0 to 6 are accepted.
      if (*o.versionIndex < 0 || *o.versionIndex > 6)
        return "--version-index must be 0 to 6, not " + std::to_string(*o.versionIndex);
      return "";
  }
}

// What the options given together cannot mean; "" when they can.
std::string combinationError(const Options& o, bool algorithmGiven) {
  if (o.save && (o.all || algorithmGiven || o.versionIndex || o.debugLevel || o.echo || o.summary ||
                 o.json || !o.cpuinfo.empty() || !o.snapshot.empty() || o.check || o.tally))
    return "--save saves a snapshot and runs no detector; give it alone";
  if (!o.snapshot.empty() && !o.cpuinfo.empty())
    return "--snapshot and --cpuinfo each name the inputs; give one";
  if (std::count(o.cpuinfo.begin(), o.cpuinfo.end(), "-") > 1)
    return "standard input (-) can be read once only";
  if ((o.check || o.tally) && !o.cpuinfo.empty())
    return std::string(o.check ? "--check" : "--tally") +
           " compares with the kernel's topology, which a saved /proc/cpuinfo does not hold; "
           "use --snapshot";
  if (o.watch && (o.all || algorithmGiven || o.summary || o.check || o.tally || o.view() ||
                  !o.cpuinfo.empty() || !o.snapshot.empty() || o.save || o.debugLevel || o.echo))
    return "--watch watches this machine's budget; give it alone, or with -J or --json-lines";
  if (o.jsonSchema == 1 && (o.view() || o.tally))
    return "--json-schema=1 has no JSON of --tally, --cpus, --places, --caches or --draw";
  if (o.view() && (o.all || algorithmGiven || o.summary || o.check || o.tally ||
                   !o.cpuinfo.empty() || (o.cpus + o.caches + o.draw + !!o.places) > 1))
    return "--cpus, --places, --caches and --draw each show the topology of this machine or "
           "of snapshots; give one, alone or with --snapshot";
  if (o.tally && o.summary) return "--tally prints only the tally; leave out --summary";
  if (o.echo && o.json)
    return "--echo puts debug lines into standard output, which would break the JSON; use "
           "--debug to have them on standard error";
  if (o.all && algorithmGiven) return "--all runs every generation; leave out --algorithm";
  // 6.0 and 6.1 are one class told apart by the index: 1 selects 6.0.
  if (o.all || !o.versionIndex) return "";
  if (o.algorithm == "6.0" && *o.versionIndex != 1) return "6.0 runs with version index 1 only";
  if (o.algorithm == "6.1" && *o.versionIndex == 1) return "version index 1 selects 6.0, not 6.1";
  return "";
}

}  // namespace

Parsed parseOptions(int argc, char** argv) {
  Parsed parsed;
  Options& o = parsed.options;
  bool algorithmGiven = false;
  opterr = 0;  // the messages below say more than getopt's own
  optind = 1;
  for (;;) {
    const int previous = optind;
    const int c = getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr);
    if (c == -1) break;
    const std::string written = previous < argc ? argv[previous] : "";
    if (bool Options::*flag = flagOf(c)) {
      o.*flag = true;
    } else if (c == kJsonLines) {
      o.json = o.jsonLines = true;
    } else if (c == ':') {
      parsed.error = "option '" + written + "' needs an argument";
    } else if (c == '?') {
      parsed.error = optopt != 0
                         ? std::string("unknown option '-") + static_cast<char>(optopt) + "'"
                         : "unknown option '" + written + "'";
    } else {
      algorithmGiven = algorithmGiven || c == 'a';
      parsed.error = takeValue(c, written.c_str(), o);
    }
    if (!parsed.error.empty()) return parsed;
  }
  if (o.help || o.version) return parsed;
  // Operands are more inputs of the kind --cpuinfo or --snapshot named.
  std::vector<std::string>* more = !o.cpuinfo.empty()    ? &o.cpuinfo
                                   : !o.snapshot.empty() ? &o.snapshot
                                                         : nullptr;
  for (; more != nullptr && optind < argc; ++optind)
    more->push_back(argv[optind]);
  if (optind < argc) {
    parsed.error = "unexpected argument '" + std::string(argv[optind]) + "'";
    if (wholeNumber(argv[optind]))
      parsed.error += "; a debug level goes right after the option: -d2 or --debug=2";
    return parsed;
  }
  parsed.error = combinationError(o, algorithmGiven);
  return parsed;
}

// The help, kept as text beside the manual page (usage.txt), made into a
// string by the build.
const char kUsage[] =
#include "usage.inc"
    ;

std::string usageText() {
  return kUsage;
}

}  // namespace xrprocdetect
