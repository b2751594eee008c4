// Machine snapshots: a recording of this machine written to a directory,
// and read back as a saved machine to replay.
//
// A snapshot directory holds the files the readers read, where they stand
// on the machine (proc/cpuinfo, sys/devices/system/cpu/..., the control
// groups' files, ...: the layout that other topology tools read under a
// system root), cpuid/pu0, cpuid/pu1, ... (each processor's CPUID answers,
// one "mask eax ebx ecx edx => eax ebx ecx edx" line a query, in
// hexadecimal) and xrprocdetect.json (what no file holds: the configured
// and online counts, the thread's affinity, the VMware probe's answer),
// written last. Any part but the last may be missing.
#ifndef XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H
#define XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

// Reads the snapshot in `dir`: its /proc/cpuinfo, metadata (or the
// processor lists) and CPUID dumps, then the files and folders that
// `readers` read on it, and nothing else, so that a replay of *saved
// answers those readers as the tree did. Returns false, with *error naming
// the file (and the line) that is to blame, when a part that is there
// cannot be read or is malformed, when the directory holds no part of a
// snapshot, when it is a save that did not finish, or when the readers
// would hold more than any snapshot. Never throws.
bool loadSnapshot(const std::string& dir, SavedMachine* saved, Error* error,
                  const std::function<void(Machine&)>& readers = {}) noexcept;

// Writes into `dir` (new, or an empty directory; never a symbolic link)
// what `recording` read; `savedBy` goes into the metadata. A save that
// fails removes what it wrote. Never throws.
bool writeSnapshot(const std::string& dir, const RecordingMachine& recording,
                   const std::string& savedBy, Error* error) noexcept;

// The string that `key` names in the metadata `text` (such as "savedAt");
// nothing where it names none.
std::optional<std::string> savedField(std::string_view text, const char* key);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_H
