// A snapshot's CPUID dumps, read and written. Reading works in proportion
// to the input and never throws past std::bad_alloc, which the loader
// catches.
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <unordered_map>
#include <vector>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

std::string atLine(int line, const std::string& message) {
  return "line " + std::to_string(line) + ": " + message;
}

// A hexadecimal number of 1 to 8 digits, without 0x.
bool hexWord(std::string_view word, std::uint32_t* value) {
  const char* const end = word.data() + word.size();
  const auto r = std::from_chars(word.data(), end, *value, 16);
  return !word.empty() && word.size() <= 8 && r.ec == std::errc() && r.ptr == end;
}

namespace {

bool fail(int line, const std::string& message, std::string* error) {
  *error = atLine(line, message);
  return false;
}

// What identifies a query: the mask and the inputs it keeps. Two lines with
// the same key ask the same question.
std::string queryKey(const CpuidLine& l) {
  std::string key(1, static_cast<char>(l.mask));
  for (int r = 0; r < 4; ++r) {
    const std::uint32_t v = (l.mask >> r & 1) != 0 ? l.in[r] : 0;
    key.append(reinterpret_cast<const char*>(&v), sizeof v);
  }
  return key;
}

std::string hex(std::uint32_t v) {
  char text[16];
  std::snprintf(text, sizeof text, "%x", v);
  return text;
}

}  // namespace

bool parseCpuidDump(std::string_view text, CpuidDump* lines, std::string* error) {
  lines->clear();
  // Each query's first line, by its key: one look-up a line.
  std::unordered_map<std::string, std::pair<std::size_t, int>> firstOf;
  std::istringstream in{std::string(text)};
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    std::istringstream split(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(split), {}};
    if (words.empty() || words[0][0] == '#') continue;
    if (words.size() != 10 || words[5] != "=>")
      return fail(number, "expected \"mask eax ebx ecx edx => eax ebx ecx edx\"", error);
    CpuidLine l{};
    bool ok = hexWord(words[0], &l.mask);
    for (int r = 0; r < 4; ++r)
      ok = ok && hexWord(words[1 + r], &l.in[r]) && hexWord(words[6 + r], &l.out[r]);
    if (!ok) return fail(number, "a word is not a hexadecimal number of at most 8 digits", error);
    if (l.mask > 0xF)
      return fail(number, "mask " + words[0] + " has bits beyond EAX to EDX", error);
    const auto first = firstOf.emplace(queryKey(l), std::make_pair(lines->size(), number));
    const auto& [index, seenOn] = first.first->second;
    if (!first.second && std::memcmp((*lines)[index].out, l.out, sizeof l.out) != 0)
      return fail(number,
                  "a second, different answer to the query of line " + std::to_string(seenOn),
                  error);
    lines->push_back(l);
  }
  return true;
}

std::string formatDump(const CpuidDump& dump) {
  std::string out = "# mask e[abcd]x => e[abcd]x\n";
  for (const CpuidLine& l : dump) {
    for (const std::uint32_t v : {l.mask, l.in[0], l.in[1], l.in[2], l.in[3]})
      out += hex(v) + " ";
    out += "=>";
    for (const std::uint32_t v : l.out)
      out += " " + hex(v);
    out += "\n";
  }
  return out;
}

}  // namespace detail
}  // namespace xrprocdetector
