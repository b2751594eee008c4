// Sources: the live machine, a saved /proc/cpuinfo, a saved machine.
#include <fcntl.h>

#include "api/api.h"
#include "kernel/kernel.h"
#include "snapshot/snapshot.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Reads a saved /proc/cpuinfo ("-": standard input), which may be a pipe.
std::string readCpuinfo(const std::string& path, std::string* text) {
  const bool standardInput = path == "-";
  const std::string shown = standardInput ? "standard input" : "'" + path + "'";
  std::string why;
  const Read r =
      readWholeFile(AT_FDCWD, standardInput ? "/dev/stdin" : path, kCpuinfoCap, text, &why);
  if (r == Read::kAbsent) return "cannot open " + shown + ": No such file or directory";
  if (r == Read::kOk) return "";
  if (why.compare(0, 11, "larger than") == 0)
    return shown + " is " + why + ", more than any /proc/cpuinfo";
  // "cannot open: reason" becomes "cannot open 'name': reason".
  const std::size_t colon = why.find(':');
  return why.substr(0, colon) + " " + shown + why.substr(colon);
}

}  // namespace

std::unique_ptr<Machine> SourceData::machine() const {
  if (kind == Source::Kind::kLive) return std::make_unique<LiveMachine>(true);
  return std::make_unique<ReplayMachine>(saved);
}

const SourceData& liveSource() {
  static const SourceData live;
  return live;
}

std::shared_ptr<SourceData> cpuinfoSource(std::string text, const char* file) {
  auto data = std::make_shared<SourceData>();
  data->kind = Source::Kind::kCpuinfo;
  std::string& cpuinfo = data->saved.files["proc/cpuinfo"] = std::move(text);
  data->saved.holder = "the file";
  if (file != nullptr) {
    data->name = file;
    data->error.why = readCpuinfo(file, &cpuinfo);
  }
  return data;
}

std::shared_ptr<SourceData> snapshotSource(const std::string& dir, Error* error,
                                           std::uint32_t skip) {
  auto data = std::make_shared<SourceData>();
  data->kind = Source::Kind::kSnapshot;
  data->name = dir;
  data->skip = skip;
  // What the topology reads is all any reader on a source reads besides
  // the parts (the budget reads the same control groups); the topology so
  // read is the source's.
  const auto readers = [&data](Machine& m) {
    data->topology = std::make_shared<Topology>(readTopology(m, data->skip));
  };
  if (!loadSnapshot(dir, &data->saved, error, readers)) return nullptr;
  return data;
}

}  // namespace detail
}  // namespace xrprocdetector
