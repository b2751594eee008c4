// Sources: the live machine, a saved /proc/cpuinfo, a saved machine.
#include "api/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <new>

#include "snapshot/snapshot.h"

namespace xrprocdetector {

namespace {

// Reads a saved /proc/cpuinfo ("-": standard input), which may be a pipe.
std::string readCpuinfo(const std::string& path, std::string* text) {
  const bool standardInput = path == "-";
  const std::string shown = standardInput ? "standard input" : "'" + path + "'";
  std::string why;
  const detail::Read r = detail::readWholeFile(AT_FDCWD, standardInput ? "/dev/stdin" : path,
                                               detail::kCpuinfoCap, text, &why, true);
  if (r == detail::Read::kAbsent) return "cannot open " + shown + ": No such file or directory";
  if (r == detail::Read::kOk) return "";
  if (why.compare(0, 11, "larger than") == 0)
    return shown + " is " + why + ", more than any /proc/cpuinfo";
  // "cannot open: reason" becomes "cannot open 'name': reason".
  const std::size_t colon = why.find(':');
  return why.substr(0, colon) + " " + shown + why.substr(colon);
}

// A saved /proc/cpuinfo: a machine of one file, which holds nothing else.
std::shared_ptr<SourceData> textData(std::string text) {
  auto data = std::make_shared<SourceData>();
  data->kind = Source::Kind::kCpuinfo;
  data->saved.cpuinfo = std::move(text);
  data->saved.holder = "the file";
  return data;
}

}  // namespace

Source::Source(std::shared_ptr<const SourceData> data) : data_(std::move(data)) {}

Source Source::live() {
  return Source(std::make_shared<SourceData>());
}

std::unique_ptr<detail::Machine> SourceData::machine() const {
  if (kind == Source::Kind::kLive) return std::make_unique<detail::LiveMachine>(true);
  return std::make_unique<detail::ReplayMachine>(saved);
}

Source Source::cpuinfoText(std::string text) {
  return Source(textData(std::move(text)));
}

Source Source::cpuinfoFile(std::string path) {
  auto data = textData("");
  data->error = readCpuinfo(path, &*data->saved.cpuinfo);
  data->name = std::move(path);
  return Source(std::move(data));
}

std::optional<Source> Source::snapshot(const std::string& dir, std::string* error) {
  auto data = std::make_shared<SourceData>();
  data->kind = Kind::kSnapshot;
  data->name = dir;
  detail::Error why;
  if (!detail::loadSnapshot(dir, &data->saved, &why)) {
    if (error != nullptr) *error = why.text();
    return std::nullopt;
  }
  return Source(std::move(data));
}

Source::Kind Source::kind() const noexcept {
  return data_->kind;
}

const std::string& Source::name() const noexcept {
  return data_->name;
}

const std::string& Source::error() const noexcept {
  return data_->error;
}

std::string jsonString(const std::string& text) {
  return detail::jsonQuoted(text);
}

}  // namespace xrprocdetector
