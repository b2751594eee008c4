#include "legacy/word_reader.h"
#include "machine/machine.h"

#include <emmintrin.h>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace xrprocdetector {
namespace detail {

namespace {

// The first byte of [p, end) that may start a trigger word: right after a
// separator, "pr" (processor), "ph" (physical), "cp" (cpu) or "co" (core),
// or a 'p' or 'c' that is the last byte, whose word may go on past `end`.
// p[-1] must be readable. Sixteen bytes at a time with SSE2, which every
// x86-64 processor has.
const char* findCandidate(const char* p, const char* end) {
  auto same = [](__m128i v, char c) { return _mm_cmpeq_epi8(v, _mm_set1_epi8(c)); };
  // The bit of each byte of the 16 from `at` that may start a trigger word.
  auto candidates = [&same](const char* at) {
    const __m128i before = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at - 1));
    const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 1));
    const __m128i pee =
        _mm_and_si128(same(first, 'p'), _mm_or_si128(same(second, 'r'), same(second, 'h')));
    const __m128i cee =
        _mm_and_si128(same(first, 'c'), _mm_or_si128(same(second, 'p'), same(second, 'o')));
    // '\t' to '\r' are the bytes whose distance above '\t' is at most 4.
    const __m128i fromTab = _mm_sub_epi8(before, _mm_set1_epi8('\t'));
    const __m128i tabToReturn =
        _mm_cmpeq_epi8(_mm_min_epu8(fromTab, _mm_set1_epi8('\r' - '\t')), fromTab);
    const __m128i space = _mm_or_si128(same(before, ' '), tabToReturn);
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(_mm_or_si128(pee, cee), space)));
  };
  // Thirty-two bytes a step while they last, then sixteen.
  for (; end - p > 32; p += 32) {
    const unsigned found = candidates(p) | candidates(p + 16) << 16;
    if (found != 0) return p + __builtin_ctz(found);
  }
  for (; end - p > 16; p += 16) {
    const unsigned found = candidates(p);
    if (found != 0) return p + __builtin_ctz(found);
  }
  for (; p < end; ++p) {
    if (!isWordSpace(p[-1])) continue;
    const bool last = p + 1 == end;
    if (*p == 'p' && (last || p[1] == 'r' || p[1] == 'h')) return p;
    if (*p == 'c' && (last || p[1] == 'p' || p[1] == 'o')) return p;
  }
  return nullptr;
}

}  // namespace

WordReader::WordReader(const char* path) : WordReader(::open(path, O_RDONLY | O_CLOEXEC)) {}

WordReader::WordReader(int fd) : fd_(fd), failed_(fd < 0) {}

WordReader openCpuinfo() {
  const CpuinfoStream s = machine().cpuinfo();
  if (s.text != nullptr) return WordReader(std::string_view(*s.text));
  return WordReader(s.fd);
}

WordReader::WordReader(std::string_view text)
    : sourceDone_(true), data_(text.data()), end_(text.size()) {}

WordReader::~WordReader() {
  if (fd_ >= 0) ::close(fd_);
}

bool WordReader::refill(std::size_t* keep) {
  if (sourceDone_ || failed_) return false;
  // An allocation that fails marks the source failed, as it sets a stream's
  // bad state: the scan then never reaches end of file, and nothing throws.
  try {
    // The word in hand may lie in the bytes about to move.
    if (word_.data() != held_.data()) {
      held_.assign(word_);
      word_ = held_;
    }
    const std::size_t kept = end_ - *keep;
    if (kept == capacity_) {
      // Full of one word (or not yet set up): a buffer twice the size.
      const std::size_t size = capacity_ == 0 ? kBufferSize : 2 * capacity_;
      std::unique_ptr<char[]> grown(new char[size]);
      if (kept > 0) std::memcpy(grown.get(), data_ + *keep, kept);
      buffer_ = std::move(grown);
      capacity_ = size;
    } else if (kept > 0) {
      std::memmove(buffer_.get(), data_ + *keep, kept);
    }
    data_ = buffer_.get();
    end_ = kept;
    *keep = 0;
  } catch (const std::bad_alloc&) {
    failed_ = true;
    return false;
  }
  for (;;) {
    const ssize_t n = ::read(fd_, buffer_.get() + end_, capacity_ - end_);
    if (n > 0) {
      end_ += static_cast<std::size_t>(n);
      return true;
    }
    if (n < 0 && errno == EINTR) continue;
    // Nothing more: the source's end, or its failure.
    (n == 0 ? sourceDone_ : failed_) = true;
    return false;
  }
}

void WordReader::read() {
  if (eof_) return;
  if (failed_) {
    // Nothing is read and the scans wait forever. Giving the processor away
    // each time keeps that endless wait from starving the host's threads.
    sched_yield();
    return;
  }
  std::size_t start = pos_;
  for (;;) {
    while (start < end_ && isWordSpace(data_[start]))
      ++start;
    if (start < end_) break;
    if (!refill(&start)) {
      // No word: the word in hand stays; end of file unless the source failed.
      eof_ = !failed_;
      pos_ = end_;
      return;
    }
  }
  std::size_t length = 1;
  for (;;) {
    while (start + length < end_ && !isWordSpace(data_[start + length]))
      ++length;
    if (start + length < end_) break;
    if (!refill(&start)) {
      if (failed_) {
        pos_ = end_;
        return;
      }
      eof_ = true;  // the word runs up to the end of the input
      break;
    }
  }
  word_ = std::string_view(data_ + start, length);
  pos_ = start + length;
}

void WordReader::skipToCandidate() {
  std::size_t i = pos_;
  while (i < end_ && isWordSpace(data_[i]))
    ++i;
  if (i == end_ || data_[i] == 'c' || data_[i] == 'p') {
    pos_ = i;
    return;
  }
  // Every word between here and the next candidate starts with another
  // letter, and is followed by a word, so none is a trigger word or the last
  // word of the input.
  if (const char* found = findCandidate(data_ + i + 1, data_ + end_)) {
    pos_ = static_cast<std::size_t>(found - data_);
    return;
  }
  // No candidate in the buffer: on to its last word, whose read may reach
  // end of file or run on past the buffer.
  std::size_t last = end_;
  while (isWordSpace(data_[last - 1]))
    --last;
  while (last > i && !isWordSpace(data_[last - 1]))
    --last;
  pos_ = last;
}

void WordReader::readUntilTrigger() {
  do {
    skipToCandidate();
    read();
  } while (!isTriggerWord(word_) && !eof_);
}

}  // namespace detail
}  // namespace xrprocdetector
