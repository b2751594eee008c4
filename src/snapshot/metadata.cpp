// The metadata file of a snapshot, xrprocdetect.json: a small JSON reader
// that keeps what it needs. Bounded work on any input; never throws past
// std::bad_alloc, which the loader catches.
#include <cstdlib>
#include <string>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

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

enum Key { kFormat, kVersion, kConfigured, kOnline, kAffinity, kVmware, kKeys };
const char* const kNames[kKeys] = {"format",           "version",  "configuredProcessors",
                                   "onlineProcessors", "affinity", "vmwareBackdoor"};

// A whole number within 32 bits, whose value starts on `line`.
bool integer(Json& json, int line, long* out, std::string* error) {
  bool isInteger = false;
  if (!json.number(&isInteger, out)) return false;
  if (!isInteger) *error = atLine(line, "expected a whole number within 32 bits");
  return isInteger;
}

// The value of the known key `k`, into *m.
bool readValue(Json& json, int k, SnapshotMetadata* m, std::string* error) {
  const int line = json.line();
  std::string s;
  long n = 0;
  switch (k) {
    case kFormat:
      return json.string(&s) && (s == "xrprocdetect-snapshot" ||
                                 json.fail("\"format\" is not \"xrprocdetect-snapshot\""));
    case kVersion:
      return integer(json, line, &n, error) &&
             (n == 1 || json.fail("version " + std::to_string(n) +
                                  " is not 1, the version this build reads"));
    case kConfigured:
    case kOnline: {
      long* count = k == kConfigured ? &m->configured : &m->online;
      return integer(json, line, count, error) &&
             ((*count >= 1 && *count <= kKernelMaxProcessors) ||
              json.fail(std::string(kNames[k]) + " " + std::to_string(*count) +
                        " is not a processor count from 1 to " +
                        std::to_string(kKernelMaxProcessors)));
    }
    case kAffinity: {
      std::vector<unsigned> cpus;
      if (!json.string(&s)) return false;
      if (parseProcessorList(s, kKernelMaxProcessors, &cpus, error)) {
        m->affinity = CpuSet(std::move(cpus));
        return true;
      }
      *error = atLine(line, "\"affinity\": " + error->substr(error->find(": ") + 2));
      return false;
    }
    default:
      m->vmwareBackdoor = json.word("true");
      return m->vmwareBackdoor || json.word("false") ||
             json.fail("\"vmwareBackdoor\" is not true or false");
  }
}

}  // namespace

bool parseMetadata(std::string_view text, SnapshotMetadata* metadata, std::string* error) {
  Json json(text);
  bool seen[kKeys] = {};
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
      } else if (seen[k]) {
        ok = json.fail("the key \"" + key + "\" is given twice");
      } else {
        seen[k] = true;
        ok = readValue(json, k, metadata, error);
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
