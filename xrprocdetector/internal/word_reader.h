// Word-by-word reading of /proc/cpuinfo, with the semantics of formatted
// string extraction (`stream >> word`) in the classic locale:
//   - a word is a maximal run of bytes other than ' ', '\t', '\n', '\v',
//     '\f' and '\r' (NUL and bytes of 0x80 and above are word bytes);
//   - a read that finds a word replaces the word in hand, and sets end of
//     file when the word runs up to the end of the input;
//   - a read that finds no word leaves the word in hand unchanged: at the end
//     of the input it sets end of file, on a source that could not be opened
//     or read it sets nothing, so end of file is never reached;
//   - once end of file is set, every further read finds no word.
// Callers test end of file only. So a scan over a source that could not be
// opened never ends, as a scan over a failed std::ifstream never ends.
//
// WordReader reads a file through a buffer of its own (or a text already in
// memory) without copying the words; StreamWordReader is the same interface
// over a std::istream, kept as the reference that WordReader is checked
// against.
#ifndef XRPROCDETECTOR_INTERNAL_WORD_READER_H
#define XRPROCDETECTOR_INTERNAL_WORD_READER_H

#include <cstddef>
#include <istream>
#include <memory>
#include <string>
#include <string_view>

namespace xrprocdetector {
namespace detail {

// True for the six bytes that separate words.
inline bool isWordSpace(unsigned char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// True for the four words that start a /proc/cpuinfo line of interest.
inline bool isTriggerWord(std::string_view w) {
  switch (w.size()) {
    case 3:
      return w == "cpu";
    case 4:
      return w == "core";
    case 8:
      return w == "physical";
    case 9:
      return w == "processor";
    default:
      return false;
  }
}

class WordReader {
 public:
  // Reads the file at `path`; a file that cannot be opened gives a source
  // that never reaches end of file.
  explicit WordReader(const char* path);
  // Reads `text`, which must outlive the reader; nothing is copied.
  explicit WordReader(std::string_view text);
  ~WordReader();
  WordReader(const WordReader&) = delete;
  WordReader& operator=(const WordReader&) = delete;

  // One extraction into the word in hand.
  void read();
  // read(), repeated while the word is not one of the four trigger words and
  // end of file is not reached. Words in between are skipped without being
  // handed out, which is what makes the scans fast.
  void readUntilTrigger();
  // read(), repeated while the word is not ":" and end of file is not reached.
  void readUntilColon();

  bool eof() const { return eof_; }
  std::string_view word() const { return word_; }

 private:
  // Moves the unread bytes from `keepFrom` on to the front of the buffer and
  // reads more after them. False when the source has nothing more (or failed).
  bool refill(std::size_t keepFrom);
  // Copies the word in hand out of the buffer before the buffer changes.
  void holdWord();
  // A read on a source that failed: the word stays, end of file never comes.
  void failedRead();
  // Finds the next word from pos_, refilling as needed; false at the end.
  bool nextWord(std::size_t* start, std::size_t* length);

  int fd_ = -1;
  bool failed_ = false;      // could not open, or a read error
  bool sourceDone_ = false;  // the source has no more bytes
  bool eof_ = false;         // the stream's end-of-file state
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
  const char* data_ = nullptr;  // buffer_ or the caller's text
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  std::string_view word_;
  std::string held_;  // the word in hand when it had to leave the buffer
};

// The reference reader: `stream >> word`, tested for end of file only.
class StreamWordReader {
 public:
  explicit StreamWordReader(std::istream& in) : in_(in) {}
  void read() { in_ >> word_; }
  void readUntilTrigger() {
    do
      read();
    while (!isTriggerWord(word_) && !in_.eof());
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

// Opens the source of the /proc/cpuinfo scans: the live file, or what an
// XrCpuinfoRedirect of the calling thread names instead.
WordReader openCpuinfo();

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_WORD_READER_H
