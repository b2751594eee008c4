// The readers of a snapshot's CPUID dumps and kernel processor lists. Bounded work on any input;
// never throws past std::bad_alloc, which the loader catches.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "xrprocdetector/internal/snapshot.h"

namespace xrprocdetector {
namespace detail {

std::string atLine(int line, const std::string& message) {
  return "line " + std::to_string(line) + ": " + message;
}

// A hexadecimal number of 1 to 8 digits, without 0x.
bool hexWord(std::string_view word, std::uint32_t* value) {
  if (word.empty() || word.size() > 8) return false;
  std::uint32_t v = 0;
  for (const char c : word) {
    int digit;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    } else {
      return false;
    }
    v = v << 4 | static_cast<std::uint32_t>(digit);
  }
  *value = v;
  return true;
}

namespace {

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// The same query: the same inputs under the same mask.
bool sameQuery(const XrCpuidLine& a, const XrCpuidLine& b) {
  if (a.mask != b.mask) return false;
  for (int r = 0; r < 4; ++r) {
    if ((a.mask >> r & 1) != 0 && a.in[r] != b.in[r]) return false;
  }
  return true;
}

}  // namespace

bool parseCpuidDump(std::string_view text, std::vector<XrCpuidLine>* lines, std::string* error) {
  lines->clear();
  std::vector<int> lineNumbers;
  int number = 0;
  while (!text.empty()) {
    ++number;
    const std::size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    std::string_view words[11];
    int count = 0;
    for (std::size_t i = 0; i < line.size();) {
      if (isSpace(line[i])) {
        ++i;
        continue;
      }
      std::size_t j = i;
      while (j < line.size() && !isSpace(line[j]))
        ++j;
      if (count < 11) words[count] = line.substr(i, j - i);
      ++count;
      i = j;
    }
    if (count == 0 || words[0][0] == '#') continue;
    if (count != 10 || words[5] != "=>") {
      *error = atLine(number, "expected \"mask eax ebx ecx edx => eax ebx ecx edx\"");
      return false;
    }
    XrCpuidLine l{};
    bool ok = hexWord(words[0], &l.mask);
    for (int r = 0; r < 4; ++r) {
      ok = ok && hexWord(words[1 + r], &l.in[r]) && hexWord(words[6 + r], &l.out[r]);
    }
    if (!ok) {
      *error = atLine(number, "a word is not a hexadecimal number of at most 8 digits");
      return false;
    }
    if (l.mask > 0xF) {
      *error = atLine(number, "mask " + std::string(words[0]) + " has bits beyond EAX to EDX");
      return false;
    }
    for (std::size_t k = 0; k < lines->size(); ++k) {
      const XrCpuidLine& seen = (*lines)[k];
      if (!sameQuery(seen, l)) continue;
      for (int r = 0; r < 4; ++r) {
        if (seen.out[r] != l.out[r]) {
          *error = atLine(number, "a second, different answer to the query of line " +
                                      std::to_string(lineNumbers[k]));
          return false;
        }
      }
    }
    lines->push_back(l);
    lineNumbers.push_back(number);
  }
  return true;
}

CpuidRegisters dumpAnswer(const std::vector<XrCpuidLine>& lines, std::uint32_t leaf,
                          std::uint32_t subleaf) {
  const std::uint32_t query[4] = {leaf, 0, subleaf, 0};
  for (const XrCpuidLine& l : lines) {
    bool match = true;
    for (int r = 0; r < 4; ++r) {
      if ((l.mask >> r & 1) != 0 && l.in[r] != query[r]) match = false;
    }
    if (match) return {l.out[0], l.out[1], l.out[2], l.out[3]};
  }
  return {0, 0, 0, 0};
}

bool parseProcessorList(std::string_view text, std::vector<unsigned>* processors,
                        std::string* error) {
  processors->clear();
  // One line; its end is optional.
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (text.empty()) return true;
  auto number = [&](std::size_t* pos, unsigned* value) {
    std::size_t digits = 0;
    unsigned v = 0;
    while (*pos < text.size() && text[*pos] >= '0' && text[*pos] <= '9') {
      v = v * 10 + static_cast<unsigned>(text[*pos] - '0');
      if (v >= kSnapshotMaxProcessors) return false;
      ++*pos;
      ++digits;
    }
    *value = v;
    return digits > 0;
  };
  const std::string limit = std::to_string(kSnapshotMaxProcessors - 1);
  std::size_t pos = 0;
  for (;;) {
    unsigned first = 0;
    unsigned last = 0;
    bool ok = number(&pos, &first);
    last = first;
    if (ok && pos < text.size() && text[pos] == '-') {
      ++pos;
      ok = number(&pos, &last) && last >= first;
    }
    if (!ok) {
      // A number stopped before its last digit was too large.
      const bool tooLarge = pos < text.size() && text[pos] >= '0' && text[pos] <= '9';
      *error = tooLarge ? "line 1: a processor number above " + limit +
                              " (the detectors' processor sets hold 0 to " + limit + ")"
                        : "line 1: not a processor list such as 0-3,8-11";
      return false;
    }
    if (!processors->empty() && first <= processors->back()) {
      *error = "line 1: processor numbers are not in increasing order";
      return false;
    }
    for (unsigned p = first; p <= last; ++p)
      processors->push_back(p);
    if (pos == text.size()) return true;
    if (text[pos] != ',') {
      *error = "line 1: not a processor list such as 0-3,8-11";
      return false;
    }
    ++pos;
  }
}

std::string formatProcessorList(const std::vector<unsigned>& processors) {
  std::string out;
  for (std::size_t i = 0; i < processors.size();) {
    std::size_t j = i;
    while (j + 1 < processors.size() && processors[j + 1] == processors[j] + 1)
      ++j;
    if (!out.empty()) out += ',';
    out += std::to_string(processors[i]);
    if (j > i) out += '-' + std::to_string(processors[j]);
    i = j + 1;
  }
  return out;
}

}  // namespace detail
}  // namespace xrprocdetector
