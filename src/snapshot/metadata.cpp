// The metadata file of a snapshot, xrprocdetect.json, written and read: a
// small JSON reader that keeps what it needs. It reads the text as tokens
// (punctuation, strings, and the bare words of numbers and literals),
// each with its line.
// Bounded work on any input; never throws past std::bad_alloc, which the
// loader catches.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "snapshot/snapshot.h"
#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

struct Token {
  char kind;  // one of "{}[]:,", '"' a string, 'w' a bare word, 0 the end, '!' a bad string
  std::string text;
  int line;
};

class Tokens {
 public:
  explicit Tokens(std::string_view text) : text_(text) {}

  Token next() {
    while (pos_ < text_.size() && std::strchr(" \t\r\n", text_[pos_]) != nullptr)
      line_ += text_[pos_++] == '\n';
    if (pos_ == text_.size()) return {0, "", line_};
    const char c = text_[pos_];
    if (std::strchr("{}[]:,", c) != nullptr) return {text_[pos_++], "", line_};
    if (c == '"') return string();
    const std::size_t from = pos_;
    while (pos_ < text_.size() && std::strchr(" \t\r\n{}[]:,\"", text_[pos_]) == nullptr)
      ++pos_;
    return {'w', std::string(text_.substr(from, pos_ - from)), line_};
  }

 private:
  // A string and its escapes; a control character, a bad escape or no
  // closing quote makes it bad.
  Token string() {
    static const char kPlain[] = "\"\\/bfnrt";
    static const char kMeans[] = "\"\\/\b\f\n\r\t";
    Token t{'"', "", line_};
    for (++pos_; pos_ < text_.size();) {
      const char c = text_[pos_++];
      if (c == '"') return t;
      if (static_cast<unsigned char>(c) < 0x20)
        return {'!', "a control character in a string", line_};
      if (c != '\\') {
        t.text += c;
        continue;
      }
      const char* plain = pos_ < text_.size() ? std::strchr(kPlain, text_[pos_]) : nullptr;
      std::uint32_t code = 0;
      if (plain != nullptr && *plain != '\0') {
        t.text += kMeans[plain - kPlain];
        ++pos_;
      } else if (text_.substr(pos_, 1) == "u" && hexWord(text_.substr(pos_ + 1, 4), &code) &&
                 pos_ + 5 <= text_.size()) {
        t.text += code < 0x80 ? static_cast<char>(code) : '?';
        pos_ += 5;
      } else {
        return {'!', "a bad escape in a string", line_};
      }
    }
    return {'!', "a string without its closing quote", line_};
  }

  std::string_view text_;
  std::size_t pos_ = 0;
  int line_ = 1;
};

enum Key { kFormat, kVersion, kConfigured, kOnline, kAffinity, kVmware, kKeys };
const char* const kNames[kKeys] = {"format",           "version",  "configuredProcessors",
                                   "onlineProcessors", "affinity", "vmwareBackdoor"};

bool fail(const Token& t, const std::string& message, std::string* error) {
  *error = atLine(t.line, t.kind == '!' ? t.text : message);
  return false;
}

// A whole number within 32 bits.
bool integer(const Token& t, long* value, std::string* error) {
  const std::size_t digits = t.text.find_first_not_of('-') == 1 ? 1 : 0;
  const bool whole = t.kind == 'w' && t.text.size() - digits <= 10 &&
                     t.text.find_first_not_of("0123456789", digits) == std::string::npos &&
                     (t.text[digits] != '0' || t.text.size() == digits + 1);
  *value = whole ? std::strtol(t.text.c_str(), nullptr, 10) : 0;
  if (whole && *value >= -2147483648L && *value <= 2147483647L) return true;
  return fail(t, t.kind == 'w' ? "expected a whole number within 32 bits" : "expected a value",
              error);
}

// The value of the known key `k`, into *m.
bool readValue(const Token& t, int k, SavedMachine* m, std::string* error) {
  long n = 0;
  CpuSet cpus;
  std::string why;
  if ((k == kFormat || k == kAffinity) && t.kind != '"') return fail(t, "expected a string", error);
  switch (k) {
    case kFormat:
      return t.text == "xrprocdetect-snapshot" ||
             fail(t, "\"format\" is not \"xrprocdetect-snapshot\"", error);
    case kVersion:
      return integer(t, &n, error) &&
             (n == 1 ||
              fail(t, "version " + std::to_string(n) + " is not 1, the version this build reads",
                   error));
    case kConfigured:
    case kOnline: {
      if (!integer(t, &n, error)) return false;
      (k == kConfigured ? m->configured : m->online) = n;
      return (n >= 1 && n <= kKernelMaxProcessors) ||
             fail(t,
                  std::string(kNames[k]) + " " + std::to_string(n) +
                      " is not a processor count from 1 to " + std::to_string(kKernelMaxProcessors),
                  error);
    }
    case kAffinity:
      if (!parseProcessorList(t.text, &cpus, &why))
        return fail(t, "\"affinity\": " + why.substr(why.find(": ") + 2), error);
      m->affinity = cpus;
      return true;
    default:
      m->vmwareBackdoor = t.kind == 'w' && t.text == "true";
      return m->vmwareBackdoor || (t.kind == 'w' && t.text == "false") ||
             fail(t, "\"vmwareBackdoor\" is not true or false", error);
  }
}

// Passes over the value that starts with `t`: a string, a word, or an
// object or array to its matching end.
bool skipValue(Tokens& tokens, Token t, std::string* error) {
  int depth = 0;
  do {
    if (t.kind == '{' || t.kind == '[') ++depth;
    if (t.kind == '}' || t.kind == ']') --depth;
    if (t.kind == 0 || t.kind == '!' || depth < 0 || depth > 64)
      return fail(t, depth > 64 ? "values nested too deeply" : "expected a value", error);
  } while (depth > 0 && ((t = tokens.next()), true));
  return true;
}

}  // namespace

bool parseMetadata(std::string_view text, SavedMachine* metadata, std::string* error) {
  Tokens tokens(text);
  bool seen[kKeys] = {};
  Token t = tokens.next();
  if (t.kind != '{') return fail(t, "expected a JSON object", error);
  t = tokens.next();
  while (t.kind != '}') {
    if (t.kind != '"') return fail(t, "expected a string", error);
    const std::string key = t.text;
    const Token colon = tokens.next();
    if (colon.kind != ':') return fail(colon, "expected ':'", error);
    const int k = static_cast<int>(std::find(kNames, kNames + kKeys, key) - kNames);
    if (k < kKeys && seen[k]) return fail(t, "the key \"" + key + "\" is given twice", error);
    const Token value = tokens.next();
    if (!(k == kKeys ? skipValue(tokens, value, error) : readValue(value, k, metadata, error)))
      return false;
    if (k < kKeys) seen[k] = true;
    t = tokens.next();
    if (t.kind != ',' && t.kind != '}') return fail(t, "expected ',' or '}'", error);
    if (t.kind == ',' && (t = tokens.next()).kind == '}')
      return fail(t, "expected a string", error);
  }
  const Token more = tokens.next();
  if (more.kind != 0) return fail(more, "more after the object", error);
  const bool* missing = std::find(seen, seen + kKeys, false);
  if (missing == seen + kKeys) return true;
  *error = std::string("the key \"") + kNames[missing - seen] + "\" is missing";
  return false;
}

std::optional<std::string> savedField(std::string_view text, const char* key) {
  Tokens tokens(text);
  for (Token t = tokens.next(); t.kind != 0 && t.kind != '!'; t = tokens.next()) {
    if (t.kind == '"' && t.text == key && tokens.next().kind == ':' &&
        (t = tokens.next()).kind == '"')
      return t.text;
  }
  return std::nullopt;
}

std::string formatMetadata(const SavedMachine& m, const std::string& savedBy) {
  char when[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc;
  gmtime_r(&now, &utc);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return "{\n  \"format\": \"xrprocdetect-snapshot\",\n  \"version\": 1,\n"
         "  \"configuredProcessors\": " +
         std::to_string(m.configured.value_or(-1)) +
         ",\n  \"onlineProcessors\": " + std::to_string(m.online.value_or(-1)) +
         ",\n  \"affinity\": \"" + m.affinity.value_or(CpuSet()).toList() +
         "\",\n  \"vmwareBackdoor\": " + (m.vmwareBackdoor ? "true" : "false") +
         ",\n  \"savedBy\": " + jsonQuoted(savedBy) + ",\n  \"savedAt\": \"" + when + "\"\n}\n";
}

}  // namespace detail
}  // namespace xrprocdetector
