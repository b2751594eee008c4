/// \file
/// What the library reads: this machine, a saved /proc/cpuinfo, or a saved
/// machine (a snapshot, or a system root such as `lscpu --sysroot` reads);
/// and how this machine is saved as a snapshot.
///
/// \code
/// #include <xrprocdetector/snapshot.h>
/// xrprocdetector::Error error;
/// if (!xrprocdetector::saveSnapshot("machine-1", error)) std::puts(error.message().c_str());
/// auto saved = xrprocdetector::Source::snapshot("machine-1", error);  // read it back, anywhere
/// \endcode
#ifndef XRPROCDETECTOR_SNAPSHOT_H
#define XRPROCDETECTOR_SNAPSHOT_H

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <xrprocdetector/c_api.h>
#include <xrprocdetector/cpuset.h>
#include <xrprocdetector/error.h>

namespace xrprocdetector {

/// What the library reads. A Source is an immutable value: what it holds
/// is read when it is made, copies share it, and any thread may use it,
/// also while others do.
class Source {
 public:
  enum class Kind { kLive, kCpuinfo, kSnapshot };

  /// This machine, read when each call runs.
  static Source live() noexcept { return Source(Kind::kLive, {}, nullptr, {}); }
  /// A /proc/cpuinfo text. The generations that need more than the text
  /// (5.3's processor count, the default detector's CPUID estimate) do not
  /// count on it.
  static Source cpuinfoText(const std::string& text) {
    return Source(Kind::kCpuinfo, {}, xrpd_source_cpuinfo_text(text.data(), text.size()), {});
  }
  /// The file at `path` ("-": standard input), read now, whole (at most 64
  /// MiB), as a /proc/cpuinfo text. A file that cannot be read gives a
  /// Source whose error() says why; detection on it reports that error.
  static Source cpuinfoFile(std::string path) {
    char* why = nullptr;
    xrpd_source* s = xrpd_source_open(XRPD_SOURCE_CPUINFO, path.c_str(), nullptr, 0, &why);
    return Source(Kind::kCpuinfo, std::move(path), s, bridge::takeError(why));
  }
  /// The snapshot or system root in `dir`, read now: what the library's
  /// readers read of it (at most 256 MiB). What the tree becomes afterwards
  /// changes nothing.
  /// Nothing when it cannot be read or is malformed, with `error` naming the
  /// file to blame. `skip` (XRPD_SKIP_* bits, since 2.2.0) names the parts
  /// of its topology left unread, to be read faster: XRPD_SKIP_CACHES for
  /// a fleet's audit that needs the counts alone.
  static std::optional<Source> snapshot(const std::string& dir, Error& error,
                                        std::uint32_t skip = 0) {
    char* why = nullptr;
    const xrpd_source_options options{sizeof options, skip};
    xrpd_source* s =
        xrpd_source_open_with(XRPD_SOURCE_SNAPSHOT, dir.c_str(), nullptr, 0, &options, &why);
    error = bridge::takeError(why);
    if (s == nullptr) return std::nullopt;
    return Source(Kind::kSnapshot, dir, s, {});
  }
  /// As above, with the error's message into *error.
  static std::optional<Source> snapshot(const std::string& dir, std::string* error = nullptr) {
    Error e;
    std::optional<Source> s = snapshot(dir, e);
    if (!s && error != nullptr) *error = e.message();
    return s;
  }

  Kind kind() const noexcept { return kind_; }
  /// The file or directory read from; empty for the live machine and a text.
  const std::string& name() const noexcept { return name_; }
  /// Why the source could not be read; empty when it could.
  const Error& error() const noexcept { return error_; }
  /// The C interface's handle: NULL for this machine. Null for a text or
  /// file only where memory ran out.
  const xrpd_source* handle() const noexcept { return handle_.get(); }
  /// When and by what a snapshot was saved, as its xrprocdetect.json says
  /// (since 2.2.0); nothing for another source, or where it does not say.
  std::optional<std::string> savedAt() const { return saved(true); }
  std::optional<std::string> savedBy() const { return saved(false); }

 private:
  Source(Kind kind, std::string name, xrpd_source* handle, Error error)
      : kind_(kind),
        name_(std::move(name)),
        handle_(handle == nullptr ? nullptr
                                  : std::shared_ptr<xrpd_source>(handle, xrpd_source_close)),
        error_(std::move(error)) {
    if (kind != Kind::kLive && handle == nullptr && error_.empty()) error_.why = "out of memory";
  }
  std::optional<std::string> saved(bool at) const {
    xrpd_source_info i{};
    i.size = sizeof i;
    const char* text = xrpd_source_get(handle(), &i) != 0 ? nullptr : at ? i.saved_at : i.saved_by;
    return text == nullptr ? std::nullopt : std::optional<std::string>(text);
  }
  Kind kind_;
  std::string name_;
  std::shared_ptr<xrpd_source> handle_;
  Error error_;
};

/// Saves this machine as a snapshot in `dir`, which must not exist or be an
/// empty directory (never a symbolic link): what every reader of the
/// library reads, each processor's CPUID answers and the counts no file
/// holds. Pins the calling thread to each processor of its affinity in turn
/// and probes the VMware port under the guard and the lock that detect()
/// describes, then gives back the affinity, signal mask and SIGSEGV
/// disposition. False, with `error` saying why, when it fails; nothing it
/// wrote is left behind.
inline bool saveSnapshot(const std::string& dir, Error& error) {
  char* why = nullptr;
  const bool saved = xrpd_save_snapshot(dir.c_str(), &why) == 0;
  error = bridge::takeError(why);
  return saved;
}
/// As above, with the error's message into *error.
inline bool saveSnapshot(const std::string& dir, std::string* error = nullptr) {
  Error e;
  const bool saved = saveSnapshot(dir, e);
  if (!saved && error != nullptr) *error = e.message();
  return saved;
}

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SNAPSHOT_H
