// The texts of a snapshot's own files: each processor's CPUID dump and the
// metadata file, read and written.
#ifndef XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_IO_H
#define XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_IO_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "snapshot/snapshot.h"

namespace xrprocdetector {
namespace detail {

// "line N: message".
std::string atLine(int line, const std::string& message);
// A hexadecimal number of 1 to 8 digits, without 0x.
bool hexWord(std::string_view word, std::uint32_t* value);
// The text of a CPUID dump, as parseCpuidDump reads it.
std::string formatDump(const CpuidDump& dump);

// The readers. On failure each returns false and sets *error to a message
// that starts with "line N: " where a line is to blame.

// A CPUID dump: "mask eax ebx ecx edx => eax ebx ecx edx" in hexadecimal,
// '#' comments, blank lines. Two different answers for one query fail.
bool parseCpuidDump(std::string_view text, CpuidDump* lines, std::string* error);
// xrprocdetect.json: one JSON object with the format, version, counts,
// affinity and VMware keys, into *saved; other keys are ignored.
bool parseMetadata(std::string_view text, SavedMachine* saved, std::string* error);
// The text of xrprocdetect.json for `saved`, saved now by `savedBy`.
std::string formatMetadata(const SavedMachine& saved, const std::string& savedBy);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_SNAPSHOT_SNAPSHOT_IO_H
