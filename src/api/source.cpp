// Sources: the live machine, a saved /proc/cpuinfo, a saved machine.
#include "api/source.h"

#include <fcntl.h>
#include <unistd.h>

#include <new>

#include "sysroot/root.h"

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

}  // namespace

Source::Source(std::shared_ptr<const SourceData> data) : data_(std::move(data)) {}

Source Source::live() {
  return Source(std::make_shared<SourceData>());
}

Source Source::cpuinfoText(std::string text) {
  auto data = std::make_shared<SourceData>();
  data->kind = Kind::kCpuinfo;
  data->text = std::move(text);
  return Source(std::move(data));
}

Source Source::cpuinfoFile(std::string path) {
  auto data = std::make_shared<SourceData>();
  data->kind = Kind::kCpuinfo;
  data->error = readCpuinfo(path, &data->text);
  data->name = std::move(path);
  return Source(std::move(data));
}

std::optional<Source> Source::snapshot(const std::string& dir, std::string* error) {
  auto data = std::make_shared<SourceData>();
  data->kind = Kind::kSnapshot;
  data->name = dir;
  std::string why;
  if (!xrLoadSnapshot(dir, &data->snapshot, &why)) {
    if (error != nullptr) *error = why;
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
