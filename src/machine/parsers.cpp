// The parsers of the kernel's small files: processor lists, CPU masks,
// numbers and numbered names.
#include "machine/parsers.h"

#include <charconv>
#include <cstdio>
#include <cstring>

namespace xrprocdetector {
namespace detail {

bool parseProcessorList(std::string_view text, CpuSet* set, std::string* error) {
  *set = CpuSet();
  // One line; its end is optional.
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  const char* p = text.data();
  const char* const end = p + text.size();
  const auto number = [&p, end](unsigned long* n) {
    const auto r = std::from_chars(p, end, *n);
    if (r.ec == std::errc::result_out_of_range) *n = CpuSet::kLimit;
    const bool read = r.ptr != p;
    p = r.ptr;
    return read;
  };
  const char* why = nullptr;
  long previous = -1;
  while (p != end && why == nullptr) {
    unsigned long first = 0;
    bool ok = number(&first);
    unsigned long last = first;
    if (ok && p != end && *p == '-') ok = ++p != end && number(&last);
    if (!ok || last < first || (p != end && (*p != ',' || p + 1 == end)))
      why = "not a processor list such as 0-3,8-11";
    else if (last >= CpuSet::kLimit)
      why = "a processor number above 8191";
    else if (static_cast<long>(first) <= previous)
      why = "processor numbers are not in increasing order";
    for (unsigned long c = first; why == nullptr && c <= last; ++c)
      set->add(static_cast<unsigned>(c));
    previous = static_cast<long>(last);
    p += p != end ? 1 : 0;
  }
  if (why == nullptr) return true;
  *error = std::string("line 1: ") + why;
  return false;
}

bool parseCpuMask(std::string_view text, CpuSet* set, std::string* error) {
  *set = CpuSet();
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  unsigned bit = 0;
  // From the least significant digit, the last one.
  for (std::size_t i = text.size(); i-- > 0;) {
    if (text[i] == ',') continue;
    const int digit = hexDigit(text[i]);
    if (digit < 0) {
      *error = "line 1: not a CPU mask such as 00000000,000000ff";
      return false;
    }
    if (digit != 0 && bit + 4 > CpuSet::kLimit) {
      *error = "line 1: a processor number above 8191";
      return false;
    }
    for (unsigned b = 0; b < 4; ++b) {
      if ((digit >> b & 1) != 0) set->add(bit + b);
    }
    bit += 4;
  }
  return true;
}

bool numberedName(const std::string& name, const char* prefix, unsigned limit, unsigned* n,
                  std::string* problem) {
  const std::size_t from = std::strlen(prefix);
  if (name.compare(0, from, prefix) != 0 || name.size() == from ||
      name.find_first_not_of("0123456789", from) != std::string::npos)
    return false;
  unsigned long value = 0;
  for (std::size_t i = from; i < name.size() && value < limit; ++i)
    value = value * 10 + static_cast<unsigned long>(name[i] - '0');
  if (name.size() - from > 1 && name[from] == '0') {
    *problem = "not a processor number in canonical form (no leading zero)";
  } else if (value >= limit) {
    *problem = "processor number above " + std::to_string(limit - 1);
  } else {
    *n = static_cast<unsigned>(value);
  }
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

namespace {

// The length of the UTF-8 character that `s` starts with (1 to 4); 0 when
// its first byte starts none: a lone continuation byte, an overlong form, a
// surrogate, a code point past U+10FFFF, or a character cut short.
std::size_t utf8Length(std::string_view s) {
  const auto at = [s](std::size_t i) { return static_cast<unsigned char>(s[i]); };
  const unsigned c = at(0);
  const std::size_t n = c < 0x80 ? 1 : c < 0xC2 || c > 0xF4 ? 0 : 2 + (c >= 0xE0) + (c >= 0xF0);
  // The second byte's range leaves out overlong forms, surrogates and code
  // points past U+10FFFF.
  const unsigned low = c == 0xE0 ? 0xA0 : c == 0xF0 ? 0x90 : 0x80;
  const unsigned high = c == 0xED ? 0x9F : c == 0xF4 ? 0x8F : 0xBF;
  for (std::size_t i = 1; i < n; ++i)
    if (i >= s.size() || at(i) < (i == 1 ? low : 0x80) || at(i) > (i == 1 ? high : 0xBF)) return 0;
  return n;
}

}  // namespace

std::string jsonQuoted(std::string_view text) {
  std::string out = "\"";
  char code[8];
  for (std::size_t i = 0, n = 1; i < text.size(); i += n) {
    const std::size_t valid = utf8Length(text.substr(i));
    n = valid == 0 ? 1 : valid;
    // The code point of a character of one or two bytes; else the first byte.
    const unsigned c = n == 2 ? (text[i] & 0x1Fu) << 6 | (text[i + 1] & 0x3Fu)
                              : static_cast<unsigned char>(text[i]);
    if (c == '"' || c == '\\' || c == '\n' || c == '\t')
      out += {'\\', c == '\n' ? 'n' : c == '\t' ? 't' : static_cast<char>(c)};
    else if (valid != 0 && (c >= 0xA0 || (c >= 0x20 && c < 0x7F)))
      out.append(text.substr(i, n));
    else
      out.append(code, std::snprintf(code, sizeof code, "\\u%04x", c));
  }
  return out + "\"";
}

bool wholeNumber(std::string_view text, long min, long max, long* value) {
  const auto r = std::from_chars(text.data(), text.data() + text.size(), *value);
  return r.ec == std::errc() && r.ptr == text.data() + text.size() && *value >= min &&
         *value <= max;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::strchr(" \t\n\r", text.back()) != nullptr)
    text.remove_suffix(1);
  return text;
}

}  // namespace detail
}  // namespace xrprocdetector
