// Where the /proc/cpuinfo scans read from: the live file, or what the
// calling thread's innermost XrCpuinfoRedirect names instead.
#include "core/cpuinfo_source.h"

#include "core/word_reader.h"

namespace xrprocdetector {
namespace detail {

WordReader openCpuinfo() {
  const XrCpuinfoRedirect* redirect = XrCpuinfoRedirect::active();
  if (redirect == nullptr) return WordReader("/proc/cpuinfo");
  if (redirect->kind() == XrCpuinfoRedirect::kText)
    return WordReader(std::string_view(redirect->value()));
  return WordReader(redirect->value().c_str());
}

}  // namespace detail
}  // namespace xrprocdetector

namespace {
// The only state of the library that is not the caller's: a pointer to the
// innermost redirect, which the host's own scope owns.
thread_local const XrCpuinfoRedirect* activeRedirect = nullptr;
}  // namespace

XrCpuinfoRedirect::XrCpuinfoRedirect(Kind kind, std::string value)
    : kind_(kind), value_(std::move(value)), previous_(activeRedirect) {
  activeRedirect = this;
}

XrCpuinfoRedirect::XrCpuinfoRedirect(const std::string* text)
    : kind_(kText), text_(text), previous_(activeRedirect) {
  activeRedirect = this;
}

XrCpuinfoRedirect::~XrCpuinfoRedirect() {
  activeRedirect = previous_;
}

const XrCpuinfoRedirect* XrCpuinfoRedirect::active() {
  return activeRedirect;
}
