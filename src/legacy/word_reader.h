// Word-by-word reading of /proc/cpuinfo, with the semantics of formatted
// string extraction (`stream >> word`) in the classic locale:
//   - a word is a maximal run of bytes other than ' ', '\t', '\n', '\v',
//     '\f' and '\r' (NUL and bytes of 0x80 and above are word bytes);
//   - a read that finds a word replaces the word in hand, and sets end of
//     file when the word runs up to the end of the input;
//   - a read that finds no word leaves the word in hand unchanged: at the end
//     of the input it sets end of file; on a source that could not be opened
//     or read, or whose word outgrew the memory to hold it, it sets nothing,
//     so end of file is never reached;
//   - once end of file is set, every further read finds no word.
// The scans test end of file only. So a scan over a source that cannot be
// read never ends, as a scan over a failed std::ifstream never ends.
#ifndef XRPROCDETECTOR_INTERNAL_WORD_READER_H
#define XRPROCDETECTOR_INTERNAL_WORD_READER_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace xrprocdetector {
namespace detail {

// True for the six bytes that separate words.
inline bool isWordSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// True for the four words that start a /proc/cpuinfo line of interest.
inline bool isTriggerWord(std::string_view w) {
  return w == "processor" || w == "cpu" || w == "core" || w == "physical";
}

// Reads a file through a buffer of its own, or a text already in memory.
// Words are handed out as views into the buffer; the word in hand is copied
// out only when the buffer is about to change under it.
class WordReader {
 public:
  // A 256-processor /proc/cpuinfo (about 475 KB) takes two reads, which
  // matters where each system call costs a hypervisor's round trip. The
  // buffer grows only to hold a word longer than itself.
  static constexpr std::size_t kBufferSize = 256 * 1024;

  // Reads the file at `path`; one that cannot be opened gives a source that
  // never reaches end of file.
  explicit WordReader(const char* path);
  // Reads the open descriptor `fd`, which it closes; -1 is a source that
  // could not be opened.
  explicit WordReader(int fd);
  // Reads `text`, which must outlive the reader; nothing is copied.
  explicit WordReader(std::string_view text);
  ~WordReader();
  WordReader(const WordReader&) = delete;
  WordReader& operator=(const WordReader&) = delete;

  // One extraction into the word in hand.
  void read();
  // read(), repeated while the word is not a trigger word and end of file is
  // not reached. Words that cannot be trigger words are stepped over in the
  // buffer rather than read one by one.
  void readUntilTrigger();
  // read(), repeated while the word is not ":" and end of file is not
  // reached.
  void readUntilColon() {
    do
      read();
    while (word_ != ":" && !eof_);
  }

  bool eof() const { return eof_; }
  std::string_view word() const { return word_; }

 private:
  // Keeps the bytes from `keep` on, moved to the front of the buffer, and
  // reads more after them. False when nothing more comes: the source is
  // done, could not be read, or the buffer could not grow.
  bool refill(std::size_t* keep);
  // Moves pos_ over words that a loop of read() would pass over without
  // finding a trigger word or end of file: to the next word that may be a
  // trigger word, or else to the buffer's last word.
  void skipToCandidate();

  int fd_ = -1;
  bool failed_ = false;      // could not open or read, or could not grow
  bool sourceDone_ = false;  // the source has no more bytes
  bool eof_ = false;         // the stream's end-of-file state
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
  const char* data_ = nullptr;  // buffer_, or the caller's text
  std::size_t pos_ = 0;         // next byte to look at; always at a word boundary
  std::size_t end_ = 0;
  std::string_view word_;
  std::string held_;  // the word in hand, once it had to leave the buffer
};

// Opens the source of the /proc/cpuinfo scans: the calling thread's
// machine's.
WordReader openCpuinfo();

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_WORD_READER_H
