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

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>
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
inline bool isWordSpace(char c) {
  return isWordSpace(static_cast<unsigned char>(c));
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
  // 256 KB takes a 256-processor /proc/cpuinfo in two reads (each read is a
  // system call, which costs more than copying some kilobytes), and is small
  // enough to stay in a second-level cache of today's size; a longer word
  // grows the buffer to fit it. A buffer of this size is kept by the thread
  // when its reader is done and taken up again by the thread's next reader,
  // so that repeated scans neither allocate nor fault in a fresh one each
  // time; it is released when the thread ends.
  static constexpr std::size_t kDefaultBufferSize = 256 * 1024;

  // Reads the file at `path`; a file that cannot be opened gives a source
  // that never reaches end of file. `bufferSize` (at least 1) is the first
  // size of the buffer: only tests pick another one, to make words straddle
  // refills.
  explicit WordReader(const char* path, std::size_t bufferSize = kDefaultBufferSize);
  // Reads `text`, which must outlive the reader; nothing is copied.
  explicit WordReader(std::string_view text);
  ~WordReader();
  WordReader(const WordReader&) = delete;
  WordReader& operator=(const WordReader&) = delete;

  // One extraction into the word in hand.
  void read();
  // read(), repeated while the word is not one of the four trigger words and
  // end of file is not reached. The words in between are passed over in the
  // buffer without being handed out one by one.
  void readUntilTrigger();
  // read(), repeated while the word is not ":" and end of file is not
  // reached; the words in between are passed over likewise.
  void readUntilColon();

  bool eof() const { return eof_; }
  std::string_view word() const { return word_; }

 private:
  // read() when the next word is not known whole: works out the words of
  // the next 64 bytes, if the buffer has them, and takes the first from
  // there, or else calls readSlow().
  void readFurther();
  // read() for what the words of 64 bytes do not show: long words, refills,
  // end of file and failed sources.
  void readSlow();
  // The words of the 64 bytes from pos_ on (which must be in the buffer)
  // become the known ones.
  void learnWords();
  // The same for the 16 bytes from pos_ on, which hold the few words after
  // a trigger word that the scans read next.
  void learnWords16();
  // Forgets the known words, when pos_ moves by other means than a read of
  // them.
  void forgetWords() {
    starts_ = 0;
    ends_ = 0;
  }
  // Moves the unread bytes from `keepFrom` on to the front of the buffer and
  // reads more after them. False when the source has nothing more (or failed).
  bool refill(std::size_t keepFrom);
  // Copies the word in hand out of the buffer before the buffer changes.
  void holdWord();
  // A read on a source that failed: the word stays, end of file never comes.
  void failedRead();
  // Finds the next word from pos_, refilling as needed; false at the end.
  bool nextWord(std::size_t* start, std::size_t* length);

  // The skips of readUntilTrigger() and readUntilColon(). Each moves pos_
  // over words of the buffer that a read would hand out and the loop would
  // pass over: words that end inside the buffer, are not the buffer's last
  // word, and are not what the loop seeks. It stops at the first word that is
  // or may be sought, or at the buffer's last word, whose read may reach the
  // end of the input; read() goes on from there. So the loop sees the same
  // sought words, the same last word and the same end of file as a loop of
  // plain reads.
  //
  // skipToTrigger() takes a trigger word that lies wholly inside the buffer
  // itself, as read() would (word_ set, pos_ after it), and then returns
  // true; otherwise it returns false and leaves the next read to the caller.
  bool skipToTrigger();
  void skipToPossibleColon();
  // pos_ to the start of the buffer's last word, if one starts at or after
  // pos_; else pos_ stays.
  void skipToLastWord();
  // Marks the trigger candidates of the next stretch of the buffer.
  void findTriggerCandidates();
  // For skipToTrigger() when no marked candidate is left: marks those of the
  // next stretch and returns true, or, when the whole buffer has been
  // searched, moves to its last word and returns false.
  __attribute__((noinline, cold)) bool nextCandidates();
  // Forgets what was worked out about the buffer's bytes, when they change.
  void forgetBuffer();

  int fd_ = -1;
  int search_ = 0;           // the vector search to use (see word_reader.cpp)
  bool failed_ = false;      // could not open, or a read error
  bool sourceDone_ = false;  // the source has no more bytes
  bool eof_ = false;         // the stream's end-of-file state
  std::unique_ptr<char[]> buffer_;
  std::size_t capacity_ = 0;
  const char* data_ = nullptr;  // buffer_ or the caller's text
  // The next byte to look at. Between calls it is always at a word boundary:
  // right after a word, at the start of a word, or at end_. Once end of file
  // is set, or the source has failed, it is at end_.
  std::size_t pos_ = 0;
  std::size_t end_ = 0;
  std::string_view word_;
  std::string held_;  // the word in hand when it had to leave the buffer

  // The words known ahead, so that the few reads after a trigger word cost a
  // few bit operations each: the words that start at or after pos_ within
  // the 16 or 64 bytes from wordsAt_ on. Bit i of starts_ marks the first
  // byte of such a word at wordsAt_ + i; the same bit of ends_ marks its
  // last byte when the byte after it is a known separator. A read takes the
  // lowest bit of each. A word that runs on past the known bytes has its
  // start marked but no end, and is the last one marked, so "ends_ is not 0"
  // means that the next word is known whole. Both are 0 whenever pos_ moves
  // by other means than a read of them, or the buffer changes.
  std::uint64_t starts_ = 0;
  std::uint64_t ends_ = 0;
  std::size_t wordsAt_ = 0;

  // Trigger candidates: positions of the buffer that may start a trigger
  // word (each is checked when it is taken). They are marked in bulk, a
  // stretch of the buffer at a time, so that passing over the many words
  // between two trigger words costs few branches. The stretch from
  // stretchAt_ on is cut into groups of 64 bytes (only its last group may be
  // shorter): bit i of groupCandidates_[g] marks the byte at
  // stretchAt_ + 64 g + i, and groupsLeft_ has bit g set for each group with
  // candidates not yet taken up. The candidates left of the group being
  // taken are in taking_, that group starting at takingAt_. All of it is
  // dropped when the buffer changes.
  static constexpr std::size_t kStretchGroups = 64;
  std::uint64_t groupCandidates_[kStretchGroups] = {};
  std::uint64_t groupsLeft_ = 0;
  std::uint64_t taking_ = 0;
  std::size_t takingAt_ = 0;
  std::size_t stretchAt_ = 0;
  std::size_t searched_ = 0;  // the buffer before this has been searched
};

// The separators among the 16 bytes at `p`, as a mask: bit i stands for
// p[i]. ' ' is 0x20, '\t' to '\r' are 9 to 13 (b - 9 at most 4, unsigned).
inline unsigned wordSpaceBits16(const char* p) {
  const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i t = _mm_sub_epi8(b, _mm_set1_epi8(9));
  const __m128i tabToReturn = _mm_cmpeq_epi8(_mm_min_epu8(t, _mm_set1_epi8(4)), t);
  const __m128i blank = _mm_cmpeq_epi8(b, _mm_set1_epi8(' '));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(tabToReturn, blank)));
}

inline void WordReader::read() {
  // The common case: the next word is known whole. Never at end of file or
  // on a failed source, where no words are known.
  if (ends_ != 0) {
    const unsigned first = static_cast<unsigned>(__builtin_ctzll(starts_));
    const unsigned last = static_cast<unsigned>(__builtin_ctzll(ends_));
    word_ = std::string_view(data_ + wordsAt_ + first, last + 1 - first);
    pos_ = wordsAt_ + last + 1;
    starts_ &= starts_ - 1;
    ends_ &= ends_ - 1;
    return;
  }
  readFurther();
}

inline void WordReader::readUntilTrigger() {
  do {
    if (skipToTrigger()) return;
    read();
  } while (!isTriggerWord(word_) && !eof_);
}

// Always inlined: the scans call it after most trigger words, and a call
// costs more than the read that it nearly always comes down to.
__attribute__((always_inline)) inline void WordReader::readUntilColon() {
  // In /proc/cpuinfo the colon is nearly always the next word, so the first
  // read goes without a skip.
  read();
  while (word_ != ":" && !eof_) {
    skipToPossibleColon();
    read();
  }
}

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

// For tests: search with SSE2 alone even where AVX2 is there, so that both
// searches can be checked on one machine.
void useSse2OnlyForTesting(bool sse2);
// For tests: search with at most SSE2 (0), AVX2 (1) or AVX-512 (2), as far as
// the processor has them, so that every search can be checked on one machine.
void limitSearchForTesting(int widest);

// Opens the source of the /proc/cpuinfo scans: the live file, or what an
// XrCpuinfoRedirect of the calling thread names instead.
WordReader openCpuinfo();

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_WORD_READER_H
