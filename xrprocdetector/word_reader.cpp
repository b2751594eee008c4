#include "xrprocdetector/internal/word_reader.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <immintrin.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "xrprocdetector/xrprocdetector_source.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Sixteen bytes at a time with SSE2, which every x86-64 processor has. Bit i
// of a mask stands for byte i of the block.
__m128i load16(const char* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

unsigned bits(__m128i m) {
  return static_cast<unsigned>(_mm_movemask_epi8(m));
}

unsigned lowestBit(unsigned mask) {
  return static_cast<unsigned>(__builtin_ctz(mask));
}

std::uint32_t lowestBit64(std::uint64_t mask) {
  return static_cast<std::uint32_t>(__builtin_ctzll(mask));
}

// The first separator in data[from, to), or `to`.
std::size_t findSpace(const char* data, std::size_t from, std::size_t to) {
  for (; from + 16 <= to; from += 16) {
    const unsigned found = wordSpaceBits16(data + from);
    if (found != 0) return from + lowestBit(found);
  }
  while (from < to && !isWordSpace(data[from]))
    ++from;
  return from;
}

// The first byte of data[from, to) that is not a separator, or `to`.
std::size_t findWordByte(const char* data, std::size_t from, std::size_t to) {
  for (; from + 16 <= to; from += 16) {
    const unsigned found = ~wordSpaceBits16(data + from) & 0xFFFF;
    if (found != 0) return from + lowestBit(found);
  }
  while (from < to && isWordSpace(data[from]))
    ++from;
  return from;
}

}  // namespace

WordReader::WordReader(const char* path, std::size_t bufferSize)
    : fd_(::open(path, O_RDONLY | O_CLOEXEC)),
      buffer_(new char[bufferSize > 0 ? bufferSize : 1]),
      capacity_(bufferSize > 0 ? bufferSize : 1) {
  failed_ = fd_ < 0;
  data_ = buffer_.get();
}

WordReader::WordReader(std::string_view text)
    : sourceDone_(true), data_(text.data()), end_(text.size()) {}

WordReader::~WordReader() {
  if (fd_ >= 0) ::close(fd_);
}

void WordReader::holdWord() {
  if (buffer_ && word_.data() >= buffer_.get() && word_.data() < buffer_.get() + capacity_) {
    held_.assign(word_);
    word_ = held_;
  }
}

bool WordReader::refill(std::size_t keepFrom) {
  if (sourceDone_ || failed_) return false;
  holdWord();
  std::size_t kept = end_ - keepFrom;
  if (keepFrom > 0 && kept > 0) std::memmove(buffer_.get(), buffer_.get() + keepFrom, kept);
  if (kept == capacity_) {
    // One word fills the whole buffer: double it.
    std::unique_ptr<char[]> bigger(new char[capacity_ * 2]);
    std::memcpy(bigger.get(), buffer_.get(), kept);
    buffer_ = std::move(bigger);
    capacity_ *= 2;
    data_ = buffer_.get();
  }
  pos_ -= keepFrom;
  end_ = kept;
  // The queued trigger candidates were positions of the old contents.
  candidateHead_ = 0;
  candidateTail_ = 0;
  candidatesFound_ = 0;
  for (;;) {
    const ssize_t n = ::read(fd_, buffer_.get() + end_, capacity_ - end_);
    if (n > 0) {
      end_ += static_cast<std::size_t>(n);
      return true;
    }
    if (n == 0) {
      sourceDone_ = true;
      return false;
    }
    if (errno != EINTR) {
      // A read error turns the source into a failed one, as a stream whose
      // buffer cannot be filled goes bad: end of file is never reached.
      failed_ = true;
      return false;
    }
  }
}

bool WordReader::nextWord(std::size_t* start, std::size_t* length) {
  for (;;) {
    pos_ = findWordByte(data_, pos_, end_);
    if (pos_ < end_) break;
    if (!refill(pos_)) return false;
  }
  std::size_t first = pos_;
  for (;;) {
    pos_ = findSpace(data_, pos_, end_);
    if (pos_ < end_) break;
    // refill() moves the word's first bytes to the front of the buffer, also
    // when it then finds that the source has nothing more.
    const std::size_t length = pos_ - first;
    const bool more = refill(first);
    first = pos_ - length;
    if (!more) break;  // the word runs to the end of the input
  }
  *start = first;
  *length = pos_ - first;
  return true;
}

void WordReader::failedRead() {
  // The stream has failed without reaching end of file: nothing is read and
  // the scans wait forever. Giving the processor away each time keeps that
  // endless wait from starving the host's other threads.
  sched_yield();
}

void WordReader::readSlow() {
  if (eof_) return;
  if (failed_) return failedRead();
  std::size_t start = 0;
  std::size_t length = 0;
  if (!nextWord(&start, &length)) {
    if (failed_) return failedRead();
    eof_ = true;  // no word before the end: the word in hand stays
    return;
  }
  word_ = std::string_view(data_ + start, length);
  // nextWord stops at the end of the buffer only when the source has nothing
  // more: a word that runs to the end of the input sets end of file with it.
  // (After a read error the partly read word is kept, and end of file still
  // never comes.)
  if (pos_ == end_ && !failed_) eof_ = true;
}

// ---------------------------------------------------------------------------
// Passing over words that a loop does not seek
//
// A word can only be skipped when a read of it would neither end the loop
// nor decide the loop's last word or end of file: it must end before end_
// (the byte after it is a separator in the buffer), must not be the buffer's
// last word, and must not be what the loop seeks. The skips look only at
// words that could be sought and stop at the first that is sought or that
// cannot be judged inside the buffer. When none is left they stop at the
// buffer's last word and read() takes it from there.

namespace {

// What the bytes data[at, end) tell of the word starting at `at`.
constexpr int kNotTrigger = 0;   // it is not a trigger word
constexpr int kCannotTell = -1;  // the buffer ends too soon to tell
// Otherwise the length of the trigger word that it is.

template <std::size_t N>
inline int triggerLengthIf(const char* data, std::size_t at, std::size_t end,
                           const char (&word)[N]) {
  constexpr std::size_t kLength = N - 1;
  if (end - at <= kLength) {
    // The buffer ends within the word or just after it.
    return std::memcmp(data + at, word, end - at) == 0 ? kCannotTell : kNotTrigger;
  }
  return std::memcmp(data + at, word, kLength) == 0 && isWordSpace(data[at + kLength])
             ? static_cast<int>(kLength)
             : kNotTrigger;
}

// For a word that starts at `at` (at < end).
inline int triggerLength(const char* data, std::size_t at, std::size_t end) {
  const char first = data[at];
  if (first != 'p' && first != 'c') return kNotTrigger;
  if (at + 1 == end) return kCannotTell;
  // The first two bytes name the one trigger word that the word can be.
  switch (data[at + 1]) {
    case 'r':
      return first == 'p' ? triggerLengthIf(data, at, end, "processor") : kNotTrigger;
    case 'h':
      return first == 'p' ? triggerLengthIf(data, at, end, "physical") : kNotTrigger;
    case 'p':
      return first == 'c' ? triggerLengthIf(data, at, end, "cpu") : kNotTrigger;
    case 'o':
      return first == 'c' ? triggerLengthIf(data, at, end, "core") : kNotTrigger;
    default:
      return kNotTrigger;
  }
}

// Trigger candidates in 64-byte groups. Bit i of a group's mask stands for
// data[at + i]: a byte 'p' followed by 'r' or 'h', or 'c' followed by 'p' or
// 'o' (the first two bytes of the trigger words), after a byte of at most
// ' ' (every separator is; the exact test comes when a candidate is taken).
// The bytes before and after the group must be in the buffer.
std::uint64_t candidateMaskSse2(const char* data) {
  auto eq = [](__m128i v, char c) { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); };
  const __m128i blank = _mm_set1_epi8(' ');
  std::uint64_t mask = 0;
  for (int block = 0; block < 4; ++block) {
    const char* at = data + 16 * block;
    const __m128i before = load16(at - 1);
    const __m128i b = load16(at);
    const __m128i next = load16(at + 1);
    const __m128i p = _mm_and_si128(eq(b, 'p'), _mm_or_si128(eq(next, 'r'), eq(next, 'h')));
    const __m128i c = _mm_and_si128(eq(b, 'c'), _mm_or_si128(eq(next, 'p'), eq(next, 'o')));
    const __m128i wordStart = _mm_cmpeq_epi8(_mm_min_epu8(before, blank), before);
    mask |= static_cast<std::uint64_t>(bits(_mm_and_si128(wordStart, _mm_or_si128(p, c))))
            << (16 * block);
  }
  return mask;
}

#define XR_AVX2 __attribute__((target("avx2,bmi,popcnt")))

XR_AVX2 inline std::uint32_t candidateMask32(const char* at) {
  const __m256i before = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at - 1));
  const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at));
  const __m256i next = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at + 1));
  const __m256i p =
      _mm256_and_si256(_mm256_cmpeq_epi8(b, _mm256_set1_epi8('p')),
                       _mm256_or_si256(_mm256_cmpeq_epi8(next, _mm256_set1_epi8('r')),
                                       _mm256_cmpeq_epi8(next, _mm256_set1_epi8('h'))));
  const __m256i c =
      _mm256_and_si256(_mm256_cmpeq_epi8(b, _mm256_set1_epi8('c')),
                       _mm256_or_si256(_mm256_cmpeq_epi8(next, _mm256_set1_epi8('p')),
                                       _mm256_cmpeq_epi8(next, _mm256_set1_epi8('o'))));
  const __m256i blank = _mm256_set1_epi8(' ');
  const __m256i wordStart = _mm256_cmpeq_epi8(_mm256_min_epu8(before, blank), before);
  return static_cast<std::uint32_t>(
      _mm256_movemask_epi8(_mm256_and_si256(wordStart, _mm256_or_si256(p, c))));
}

// Appends the positions of the candidates of the groups from `at` on to
// out[*count], while a group fits before `stop` and out has room for 64 more
// (out[*count + 64] is the limit; the caller ensures it). Returns where it
// stopped.
std::size_t appendCandidatesSse2(const char* data, std::size_t at, std::size_t stop,
                                 std::size_t base, std::uint32_t* out, std::size_t* count,
                                 std::size_t room) {
  for (; stop - at >= 64 && *count + 64 <= room; at += 64) {
    for (std::uint64_t m = candidateMaskSse2(data + at); m != 0; m &= m - 1)
      out[(*count)++] = static_cast<std::uint32_t>(at - base) + lowestBit64(m);
  }
  return at;
}

// The same with AVX2, and without a branch per candidate: the first two
// positions of a group are written whether or not they exist (the count only
// moves on by the real number), which suits the one candidate that a group of
// /proc/cpuinfo text has, if any; more take a loop.
XR_AVX2 std::size_t appendCandidatesAvx2(const char* data, std::size_t at, std::size_t stop,
                                         std::size_t base, std::uint32_t* out, std::size_t* count,
                                         std::size_t room) {
  std::size_t n = *count;
  for (; stop - at >= 64 && n + 64 <= room; at += 64) {
    std::uint64_t m = candidateMask32(data + at) |
                      static_cast<std::uint64_t>(candidateMask32(data + at + 32)) << 32;
    const std::uint32_t offset = static_cast<std::uint32_t>(at - base);
    const std::size_t found = static_cast<std::size_t>(_mm_popcnt_u64(m));
    out[n] = offset + static_cast<std::uint32_t>(_tzcnt_u64(m));
    m = _blsr_u64(m);
    out[n + 1] = offset + static_cast<std::uint32_t>(_tzcnt_u64(m));
    if (found > 2) {
      std::size_t i = n + 2;
      for (m = _blsr_u64(m); m != 0; m = _blsr_u64(m))
        out[i++] = offset + static_cast<std::uint32_t>(_tzcnt_u64(m));
    }
    n += found;
  }
  *count = n;
  return at;
}

#undef XR_AVX2

std::atomic<bool> sse2Only{false};

bool haveAvx2() {
  static const bool avx2 = [] {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
           __builtin_cpu_supports("popcnt");
  }();
  return avx2 && !sse2Only.load(std::memory_order_relaxed);
}

// The first ":" word of data[from, end), or a word there that may be one
// (a colon that starts a word running to `end`), or `end`. data[from - 1]
// counts as a separator.
std::size_t findPossibleColon(const char* data, std::size_t from, std::size_t end) {
  auto mayBeColon = [&](std::size_t at) {
    return (at == from || isWordSpace(data[at - 1])) &&
           (at + 1 == end || isWordSpace(data[at + 1]));
  };
  const __m128i colon = _mm_set1_epi8(':');
  std::size_t at = from;
  for (; end - at >= 16; at += 16) {
    for (unsigned m = bits(_mm_cmpeq_epi8(load16(data + at), colon)); m != 0; m &= m - 1) {
      const std::size_t word = at + lowestBit(m);
      if (mayBeColon(word)) return word;
    }
  }
  for (; at < end; ++at) {
    if (data[at] == ':' && mayBeColon(at)) return at;
  }
  return end;
}

}  // namespace

void WordReader::findTriggerCandidates() {
  // A stretch of 4 KB at a time: long enough that the search runs in bulk,
  // short enough that a file's first trigger word is not kept waiting.
  constexpr std::size_t kStretch = 4096;
  std::size_t at = candidatesFound_;
  const std::size_t stop = end_ - at > kStretch ? at + kStretch : end_;
  candidateBase_ = at;
  candidateHead_ = 0;
  candidateTail_ = 0;
  // The same test, one byte at a time, where a group does not fit.
  auto oneByOne = [&](std::size_t to) {
    for (; at < to && candidateTail_ < kCandidateQueue; ++at) {
      const char b = data_[at];
      if ((b == 'p' || b == 'c') && (at == 0 || static_cast<unsigned char>(data_[at - 1]) <= ' '))
        candidates_[candidateTail_++] = static_cast<std::uint32_t>(at - candidateBase_);
    }
  };
  // A group needs the byte before it and the byte after it.
  if (at == 0) oneByOne(1);
  const std::size_t groupsStop = stop < end_ ? stop : end_ - 1;
  if (at < groupsStop) {
    at = haveAvx2() ? appendCandidatesAvx2(data_, at, groupsStop, candidateBase_, candidates_,
                                           &candidateTail_, kCandidateQueue)
                    : appendCandidatesSse2(data_, at, groupsStop, candidateBase_, candidates_,
                                           &candidateTail_, kCandidateQueue);
  }
  if (stop == end_) oneByOne(end_);
  candidatesFound_ = at;
}

bool WordReader::skipToTrigger() {
  for (;;) {
    while (candidateHead_ < candidateTail_) {
      const std::size_t at = candidateBase_ + candidates_[candidateHead_++];
      if (at < pos_) continue;  // passed over by reads since it was queued
      // pos_ is at a word boundary, so a word starts there if anywhere.
      if (at != pos_ && !isWordSpace(data_[at - 1])) continue;
      const int length = triggerLength(data_, at, end_);
      if (length == kNotTrigger) continue;
      if (length == kCannotTell) {
        pos_ = at;
        return false;
      }
      word_ = std::string_view(data_ + at, static_cast<std::size_t>(length));
      pos_ = at + static_cast<std::size_t>(length);
      return true;
    }
    if (candidatesFound_ >= end_) break;
    findTriggerCandidates();
  }
  skipToLastWord();
  return false;
}

void WordReader::skipToLastWord() {
  std::size_t last = end_;
  while (last > pos_ && isWordSpace(data_[last - 1]))
    --last;
  if (last == pos_) return;  // only separators left
  while (last > pos_ && !isWordSpace(data_[last - 1]))
    --last;
  pos_ = last;
}

void WordReader::skipToPossibleColon() {
  const std::size_t at = findPossibleColon(data_, pos_, end_);
  if (at < end_) {
    pos_ = at;
  } else {
    skipToLastWord();
  }
}

void useSse2OnlyForTesting(bool sse2) {
  sse2Only.store(sse2, std::memory_order_relaxed);
}

WordReader openCpuinfo() {
  const XrCpuinfoRedirect* redirect = XrCpuinfoRedirect::active();
  if (redirect == nullptr) return WordReader("/proc/cpuinfo");
  if (redirect->kind() == XrCpuinfoRedirect::kText)
    return WordReader(std::string_view(redirect->value()));
  return WordReader(redirect->value().c_str());
}

}  // namespace detail
}  // namespace xrprocdetector

namespace {
thread_local const XrCpuinfoRedirect* activeRedirect = nullptr;
}  // namespace

XrCpuinfoRedirect::XrCpuinfoRedirect(Kind kind, std::string value)
    : kind_(kind), value_(std::move(value)), previous_(activeRedirect) {
  activeRedirect = this;
}

XrCpuinfoRedirect::~XrCpuinfoRedirect() {
  activeRedirect = previous_;
}

const XrCpuinfoRedirect* XrCpuinfoRedirect::active() {
  return activeRedirect;
}
