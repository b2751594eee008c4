// The reference that the library's word reader is checked against:
// `stream >> word`, tested for end of file only, behind the same interface;
// and a transcript of what a reader does, to compare two readers by.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H
#define XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H

#include <sstream>
#include <string>
#include <string_view>

#include "legacy/cpuinfo_walk.h"

namespace testsupport {

class StreamWordReader {
 public:
  explicit StreamWordReader(std::istream& in) : in_(in) {}
  void read() { in_ >> word_; }
  void readUntilTrigger() {
    do
      read();
    while (word_ != "processor" && word_ != "cpu" && word_ != "core" && word_ != "physical" &&
           !in_.eof());
  }
  void readUntilColon() {
    do
      read();
    while (word_ != ":" && !in_.eof());
  }
  bool eof() const { return in_.eof(); }
  std::string_view word() const { return word_; }

 private:
  std::istream& in_;
  std::string word_;
};

// Writes down every value the /proc/cpuinfo walk records.
struct WalkLog {
  std::string text;
  void add(char kind, std::string_view v) { (text += kind) += std::string(v) + '\n'; }
  void processor(std::string_view v) { add('p', v); }
  void cpuCores(std::string_view v) { add('c', v); }
  void coreId(std::string_view v) { add('i', v); }
  void physicalId(std::string_view v) { add('f', v); }
};

// Each byte of `script` is a step (read, readUntilTrigger or readUntilColon,
// by its value modulo 3), after which the word in hand and the end-of-file
// state are written down; then the walk takes the rest of the input.
template <class Reader>
std::string transcript(Reader& r, std::string_view script) {
  WalkLog log;
  for (unsigned char op : script) {
    if (op % 3 == 0) r.read();
    if (op % 3 == 1) r.readUntilTrigger();
    if (op % 3 == 2) r.readUntilColon();
    log.add(r.eof() ? 'E' : 'w', r.word());
    if (r.eof()) return log.text;
  }
  xrprocdetector::detail::walkCpuinfo(r, log);
  log.add('E', r.word());
  return log.text;
}

// The transcript of `stream >> word` over `bytes`.
inline std::string referenceTranscript(const std::string& bytes, std::string_view script) {
  std::istringstream in(bytes);
  StreamWordReader reference(in);
  return transcript(reference, script);
}

}  // namespace testsupport

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H
