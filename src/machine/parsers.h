// The parsers of the kernel's small files, each allocating nothing but its
// message.
#ifndef XRPROCDETECTOR_SRC_MACHINE_PARSERS_H
#define XRPROCDETECTOR_SRC_MACHINE_PARSERS_H

#include <string>
#include <string_view>

#include <xrprocdetector/cpuset.h>

namespace xrprocdetector {
namespace detail {

// A kernel processor list such as "0-3,8-11\n": increasing, no repeats,
// every number below CpuSet::kLimit. An empty list is valid. On failure
// *error is "line 1: ..." (the list's only line). Allocates nothing but the
// message.
bool parseProcessorList(std::string_view text, CpuSet* set, std::string* error);
// The value of a hexadecimal digit, or -1.
int hexDigit(char c);
// A kernel CPU mask: 32-bit hexadecimal words, most significant first,
// separated by commas.
bool parseCpuMask(std::string_view text, CpuSet* set, std::string* error);

// Whether `name` is `prefix` followed by a number ("cpu12", "pu3"). If so,
// *n is the number when it is in canonical form (no leading zero) and below
// `limit`; otherwise *problem says which it is not.
bool numberedName(const std::string& name, const char* prefix, unsigned limit, unsigned* n,
                  std::string* problem);

// `text` as a whole number from `min` to `max`: base 10, nothing around it.
// Allocates nothing.
bool wholeNumber(std::string_view text, long min, long max, long* value);
// `text` without the blanks and line ends at its end.
std::string_view trimmed(std::string_view text);

// A JSON string literal of `text`, valid UTF-8 whatever `text` holds: `"`
// and `\` escaped, newlines and tabs as \n and \t, the other control
// characters (C0, DEL and C1) as \u00XX; and each byte that is not part of
// valid UTF-8 as \u00XX of its own value, the character Latin-1 gives that
// byte, so that the output stays valid and every byte can still be read
// off it.
std::string jsonQuoted(std::string_view text);

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_SRC_MACHINE_PARSERS_H
