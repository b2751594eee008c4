// The readers of a snapshot's text files: CPUID dumps, kernel processor
// lists and the metadata JSON. Bounded work on any input; never throws past
// std::bad_alloc, which the loader catches.
#include <cstdlib>
#include <string>

#include "xrprocdetector/internal/snapshot.h"

namespace xrprocdetector {
namespace detail {

namespace {

std::string atLine(int line, const std::string& message) {
  return "line " + std::to_string(line) + ": " + message;
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r';
}

// 1 to 8 hexadecimal digits.
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

// ---------------------------------------------------------------------------
// The metadata file: a small JSON reader that keeps what it needs.

namespace {

class Json {
 public:
  explicit Json(std::string_view text) : text_(text) {}

  bool fail(const std::string& message) {
    if (error_.empty()) error_ = atLine(line_, message);
    return false;
  }
  const std::string& error() const { return error_; }

  void skipSpace() {
    while (pos_ < text_.size()) {
      const char c = text_[pos_];
      if (c == '\n') {
        ++line_;
      } else if (c != ' ' && c != '\t' && c != '\r') {
        return;
      }
      ++pos_;
    }
  }
  bool take(char c) {
    skipSpace();
    if (pos_ < text_.size() && text_[pos_] == c) {
      ++pos_;
      return true;
    }
    return false;
  }
  bool peek(char c) {
    skipSpace();
    return pos_ < text_.size() && text_[pos_] == c;
  }
  bool atEnd() {
    skipSpace();
    return pos_ == text_.size();
  }

  bool string(std::string* out) {
    if (!take('"')) return fail("expected a string");
    out->clear();
    while (pos_ < text_.size()) {
      const char c = text_[pos_++];
      if (c == '"') return true;
      if (static_cast<unsigned char>(c) < 0x20) return fail("a control character in a string");
      if (c != '\\') {
        *out += c;
        continue;
      }
      if (pos_ == text_.size()) break;
      const char e = text_[pos_++];
      static const char kPlain[] = "\"\\/bfnrt";
      static const char kMeans[] = "\"\\/\b\f\n\r\t";
      bool known = false;
      for (int i = 0; kPlain[i] != '\0'; ++i) {
        if (e == kPlain[i]) {
          *out += kMeans[i];
          known = true;
        }
      }
      if (known) continue;
      std::uint32_t code = 0;
      if (e != 'u' || pos_ + 4 > text_.size() || !hexWord(text_.substr(pos_, 4), &code))
        return fail("a bad escape in a string");
      pos_ += 4;
      *out += code < 0x80 ? static_cast<char>(code) : '?';
    }
    return fail("a string without its closing quote");
  }

  // A JSON number; *integer is set when it is a whole number within 32 bits.
  bool number(bool* isInteger, long* integer) {
    skipSpace();
    const std::size_t start = pos_;
    auto digits = [&] {
      const std::size_t from = pos_;
      while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9')
        ++pos_;
      return pos_ > from;
    };
    if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
    const std::size_t intStart = pos_;
    if (!digits()) return fail("expected a value");
    if (text_[intStart] == '0' && pos_ - intStart > 1) return fail("a number with a leading 0");
    const std::size_t intEnd = pos_;
    bool whole = true;
    if (pos_ < text_.size() && text_[pos_] == '.') {
      ++pos_;
      whole = false;
      if (!digits()) return fail("a number without digits after its point");
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      ++pos_;
      whole = false;
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
      if (!digits()) return fail("a number without digits in its exponent");
    }
    *isInteger = whole && intEnd - start <= 11;
    if (*isInteger) {
      const long v =
          std::strtol(std::string(text_.substr(start, intEnd - start)).c_str(), nullptr, 10);
      *isInteger = v >= -2147483648L && v <= 2147483647L;
      *integer = v;
    }
    return true;
  }

  bool word(std::string_view w) {
    skipSpace();
    if (text_.substr(pos_, w.size()) != w) return false;
    pos_ += w.size();
    return true;
  }

  // Any value, checked and dropped.
  bool skipValue(int depth) {
    if (depth > 64) return fail("values nested too deeply");
    std::string s;
    if (peek('"')) return string(&s);
    if (word("true") || word("false") || word("null")) return true;
    const bool object = take('{');
    if (object || take('[')) {
      const char close = object ? '}' : ']';
      if (take(close)) return true;
      do {
        if (object && !(string(&s) && (take(':') || fail("expected ':'")))) return false;
        if (!skipValue(depth + 1)) return false;
      } while (take(','));
      return take(close) || fail(object ? "expected ',' or '}'" : "expected ',' or ']'");
    }
    bool isInteger = false;
    long value = 0;
    return number(&isInteger, &value);
  }

  int line() const { return line_; }

 private:
  std::string_view text_;
  std::size_t pos_ = 0;
  int line_ = 1;
  std::string error_;
};

}  // namespace

bool parseMetadata(std::string_view text, SnapshotMetadata* metadata, std::string* error) {
  Json json(text);
  enum Key { kFormat, kVersion, kConfigured, kOnline, kAffinity, kVmware, kKeys };
  static const char* const kNames[kKeys] = {"format",           "version",  "configuredProcessors",
                                            "onlineProcessors", "affinity", "vmwareBackdoor"};
  bool seen[kKeys] = {};
  auto integer = [&](long* out) {
    bool isInteger = false;
    const int line = json.line();
    if (!json.number(&isInteger, out)) return false;
    if (!isInteger) {
      *error = atLine(line, "expected a whole number within 32 bits");
      return false;
    }
    return true;
  };
  bool ok = json.take('{') || json.fail("expected a JSON object");
  if (ok && !json.take('}')) {
    do {
      std::string key;
      ok = json.string(&key) && (json.take(':') || json.fail("expected ':'"));
      if (!ok) break;
      int k = 0;
      while (k < kKeys && key != kNames[k])
        ++k;
      if (k == kKeys) {
        ok = json.skipValue(0);
        if (!ok) break;
        continue;
      }
      if (seen[k]) {
        ok = json.fail("the key \"" + key + "\" is given twice");
        break;
      }
      seen[k] = true;
      const int line = json.line();
      std::string s;
      long n = 0;
      switch (k) {
        case kFormat:
          ok = json.string(&s) && (s == "xrprocdetect-snapshot" ||
                                   json.fail("\"format\" is not \"xrprocdetect-snapshot\""));
          break;
        case kVersion:
          ok = integer(&n) && (n == 1 || json.fail("version " + std::to_string(n) +
                                                   " is not 1, the version this build reads"));
          break;
        case kConfigured:
          ok = integer(&metadata->configured);
          break;
        case kOnline:
          ok = integer(&metadata->online);
          break;
        case kAffinity:
          ok = json.string(&s);
          if (ok && !parseProcessorList(s, &metadata->affinity, error)) {
            *error = atLine(line, "\"affinity\": " + error->substr(error->find(": ") + 2));
            return false;
          }
          break;
        case kVmware:
          if (json.word("true")) {
            metadata->vmwareBackdoor = true;
          } else if (json.word("false")) {
            metadata->vmwareBackdoor = false;
          } else {
            ok = json.fail("\"vmwareBackdoor\" is not true or false");
          }
          break;
      }
      if (!ok) break;
    } while (json.take(','));
    ok = ok && (json.take('}') || json.fail("expected ',' or '}'"));
  }
  ok = ok && (json.atEnd() || json.fail("more after the object"));
  if (!ok) {
    if (!json.error().empty()) *error = json.error();
    return false;
  }
  for (int k = 0; k < kKeys; ++k) {
    if (!seen[k]) {
      *error = std::string("the key \"") + kNames[k] + "\" is missing";
      return false;
    }
  }
  return true;
}

}  // namespace detail
}  // namespace xrprocdetector
