// The reference word reader: formatted string extraction (`stream >> word`)
// from a std::istream, behind the interface of the library's word reader, so
// that the two can be run side by side over the same bytes.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H
#define XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H

#include <istream>
#include <string>
#include <string_view>

namespace testsupport {

class StreamWordReader {
 public:
  explicit StreamWordReader(std::istream& in) : in_(in) {}
  // One extraction into the word in hand; one that fails leaves it as it was.
  void read() { in_ >> word_; }
  // read(), repeated while the word is not one of the four trigger words and
  // end of file is not reached.
  void readUntilTrigger() {
    for (read(); !isTrigger(word_) && !in_.eof();)
      read();
  }
  // read(), repeated while the word is not ":" and end of file is not reached.
  void readUntilColon() {
    for (read(); word_ != ":" && !in_.eof();)
      read();
  }
  bool eof() const { return in_.eof(); }
  std::string_view word() const { return word_; }

 private:
  static bool isTrigger(const std::string& w) {
    return w == "processor" || w == "core" || w == "physical" || w == "cpu";
  }
  std::istream& in_;
  std::string word_;
};

}  // namespace testsupport

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_STREAM_WORD_READER_H
