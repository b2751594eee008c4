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

unsigned lowestBit64(std::uint64_t mask) {
  return static_cast<unsigned>(__builtin_ctzll(mask));
}

// The separators among the 64 bytes at `p`, as a mask: bit i stands for
// p[i]. With SSE2, and with AVX-512 where the processor has it.
std::uint64_t wordSpaceBits64(const char* p) {
  return static_cast<std::uint64_t>(wordSpaceBits16(p)) |
         static_cast<std::uint64_t>(wordSpaceBits16(p + 16)) << 16 |
         static_cast<std::uint64_t>(wordSpaceBits16(p + 32)) << 32 |
         static_cast<std::uint64_t>(wordSpaceBits16(p + 48)) << 48;
}

__attribute__((target("avx512f,avx512bw"))) std::uint64_t wordSpaceBits64Avx512(const char* p) {
  const __m512i b = _mm512_loadu_si512(p);
  return _mm512_cmpeq_epi8_mask(b, _mm512_set1_epi8(' ')) |
         _mm512_cmple_epu8_mask(_mm512_sub_epi8(b, _mm512_set1_epi8('\t')),
                                _mm512_set1_epi8('\r' - '\t'));
}

// The vector instructions that the searches use, narrowest to widest, and
// the widest that this processor has and tests allow.
constexpr int kSse2 = 0;
constexpr int kAvx2 = 1;
constexpr int kAvx512 = 2;
int widestSearch();

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

// The buffer that the thread's last reader of the default size left, for its
// next reader. It goes with the thread.
thread_local std::unique_ptr<char[]> spareBuffer;

std::unique_ptr<char[]> takeBuffer(std::size_t size) {
  if (size == WordReader::kDefaultBufferSize && spareBuffer) return std::move(spareBuffer);
  return std::unique_ptr<char[]>(new char[size]);
}

}  // namespace

WordReader::WordReader(const char* path, std::size_t bufferSize)
    : fd_(::open(path, O_RDONLY | O_CLOEXEC)),
      buffer_(takeBuffer(bufferSize > 0 ? bufferSize : 1)),
      capacity_(bufferSize > 0 ? bufferSize : 1) {
  search_ = widestSearch();
  failed_ = fd_ < 0;
  data_ = buffer_.get();
}

WordReader::WordReader(std::string_view text)
    : sourceDone_(true), data_(text.data()), end_(text.size()) {
  search_ = widestSearch();
}

WordReader::~WordReader() {
  if (fd_ >= 0) ::close(fd_);
  // A buffer of the default size (not grown) goes back to the thread, unless
  // another reader's already has.
  if (buffer_ && capacity_ == kDefaultBufferSize && !spareBuffer) spareBuffer = std::move(buffer_);
}

void WordReader::forgetBuffer() {
  // The separator bits and the trigger candidates were about the old
  // contents.
  forgetWords();
  groupsLeft_ = 0;
  taking_ = 0;
  searched_ = 0;
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
  forgetBuffer();
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

void WordReader::learnWords() {
  const char* p = data_ + pos_;
  const std::uint64_t spaces = search_ == kAvx512 ? wordSpaceBits64Avx512(p) : wordSpaceBits64(p);
  const std::uint64_t wordBytes = ~spaces;
  // pos_ is at a word boundary, so a word byte there starts a word. The last
  // byte of the 64 ends no word here: what follows it is not known.
  starts_ = wordBytes & ~(wordBytes << 1);
  ends_ = wordBytes & (spaces >> 1);
  wordsAt_ = pos_;
}

inline void WordReader::learnWords16() {
  const std::uint64_t spaces = wordSpaceBits16(data_ + pos_);
  // The bytes past the 16 count as word bytes: a word running into them has
  // no end here.
  const std::uint64_t wordBytes = ~spaces;
  starts_ = wordBytes & ~(wordBytes << 1);
  ends_ = wordBytes & (spaces >> 1);
  wordsAt_ = pos_;
}

void WordReader::readFurther() {
  if (end_ - pos_ >= 64) {
    learnWords();
    if (ends_ != 0) return read();
  }
  forgetWords();
  readSlow();
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

// Trigger candidates in groups of 64 bytes. Bit i of a group's mask stands
// for data[at + i]: a byte 'p' followed by 'r' or 'h', or 'c' followed by 'p'
// or 'o' (the first two bytes of the trigger words), after a byte of at most
// ' ' (every separator is; the exact test comes when a candidate is taken).
// The byte before the group and the three after it must be in the buffer.
constexpr std::size_t kGroup = 64;
constexpr std::size_t kGroupLookahead = 3;

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

// The masks of `groups` whole groups from `at` on into masks[0, groups).
void searchGroupsSse2(const char* data, std::size_t at, std::size_t groups, std::uint64_t* masks) {
  for (std::size_t g = 0; g < groups; ++g, at += kGroup)
    masks[g] = candidateMaskSse2(data + at);
}

#define XR_AVX2 __attribute__((target("avx2")))

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

XR_AVX2 void searchGroupsAvx2(const char* data, std::size_t at, std::size_t groups,
                              std::uint64_t* masks) {
  for (std::size_t g = 0; g < groups; ++g, at += kGroup) {
    masks[g] = candidateMask32(data + at) |
               static_cast<std::uint64_t>(candidateMask32(data + at + 32)) << 32;
  }
}

#undef XR_AVX2

// With AVX-512 (BW for the byte masks, VBMI for the byte table look-ups) a
// group is one vector, and the test reaches one byte further: the first,
// second and fourth bytes of a word are each looked up in a table of 128
// entries, indexed by the byte's low seven bits (so a byte of 0x80 and above
// stands for the byte 0x80 lower, which only adds candidates). Each table
// gives a bit per trigger word that the byte fits at that place: bit 0
// "processor" ('p', 'r', 'c'), bit 1 "physical" ('p', 'h', 's'), bit 2 "cpu"
// ('c', 'p', a separator), bit 3 "core" ('c', 'o', 'e'). A candidate is a
// byte, after a byte of at most ' ', whose three look-ups share a bit. Every
// candidate of the test above whose fourth byte fits is one here, so no
// trigger word is missed; words such as "cpuid" or "constant_tsc" are no
// longer candidates.
#define XR_AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi")))

struct ByteTables {
  alignas(64) unsigned char first[128] = {};
  alignas(64) unsigned char second[128] = {};
  alignas(64) unsigned char fourth[128] = {};
  constexpr ByteTables() {
    constexpr unsigned char kProcessor = 1, kPhysical = 2, kCpu = 4, kCore = 8;
    auto at = [](char c) { return static_cast<unsigned char>(c); };
    first[at('p')] = kProcessor | kPhysical;
    first[at('c')] = kCpu | kCore;
    second[at('r')] = kProcessor;
    second[at('h')] = kPhysical;
    second[at('p')] = kCpu;
    second[at('o')] = kCore;
    fourth[at('c')] = kProcessor;
    fourth[at('s')] = kPhysical;
    fourth[at(' ')] = kCpu;
    for (char c = '\t'; c <= '\r'; ++c)
      fourth[at(c)] = kCpu;
    fourth[at('e')] = kCore;
  }
};
constexpr ByteTables kByteTables;

XR_AVX512 void searchGroupsAvx512(const char* data, std::size_t at, std::size_t groups,
                                  std::uint64_t* masks) {
  const __m512i firstLow = _mm512_load_si512(kByteTables.first);
  const __m512i firstHigh = _mm512_load_si512(kByteTables.first + 64);
  const __m512i secondLow = _mm512_load_si512(kByteTables.second);
  const __m512i secondHigh = _mm512_load_si512(kByteTables.second + 64);
  const __m512i fourthLow = _mm512_load_si512(kByteTables.fourth);
  const __m512i fourthHigh = _mm512_load_si512(kByteTables.fourth + 64);
  const __m512i blank = _mm512_set1_epi8(' ');
  // `low` marks the bytes of at most ' ' of the group before (before the
  // first group, only the byte before it, at bit 63). A candidate follows
  // such a byte: the group's own marks shifted up one bit, with bit 63 of the
  // group before as bit 0. So a group takes three loads, not four.
  std::uint64_t low = static_cast<unsigned char>(data[at - 1]) <= ' ' ? std::uint64_t{1} << 63 : 0;
  for (std::size_t g = 0; g < groups; ++g, at += kGroup) {
    const char* p = data + at;
    const __m512i bytes = _mm512_loadu_si512(p);
    const std::uint64_t before = low >> 63;
    low = _mm512_cmple_epu8_mask(bytes, blank);
    const __m512i first = _mm512_permutex2var_epi8(firstLow, bytes, firstHigh);
    const __m512i second =
        _mm512_permutex2var_epi8(secondLow, _mm512_loadu_si512(p + 1), secondHigh);
    const __m512i fourth =
        _mm512_permutex2var_epi8(fourthLow, _mm512_loadu_si512(p + 3), fourthHigh);
    masks[g] =
        _mm512_mask_test_epi8_mask(low << 1 | before, _mm512_and_si512(first, second), fourth);
  }
}

// Bit g set for each of masks[0, groups) that is not 0; all 64 masks (a
// whole stretch) must be readable.
XR_AVX512 std::uint64_t groupsWithCandidatesAvx512(const std::uint64_t* masks, std::size_t groups) {
  std::uint64_t bits = 0;
  for (std::size_t g = 0; g < 64; g += 8) {
    const __m512i eight = _mm512_loadu_si512(masks + g);
    bits |= static_cast<std::uint64_t>(_mm512_test_epi64_mask(eight, eight)) << g;
  }
  return groups >= 64 ? bits : bits & ((std::uint64_t{1} << groups) - 1);
}

#undef XR_AVX512

// The widest search that the processor has, and the widest that tests allow.
std::atomic<int> widestAllowed{kAvx512};

int widestSearch() {
  static const int widest = [] {
    __builtin_cpu_init();
    if (!__builtin_cpu_supports("avx2")) return kSse2;
    if (!__builtin_cpu_supports("avx512f") || !__builtin_cpu_supports("avx512bw") ||
        !__builtin_cpu_supports("avx512vbmi"))
      return kAvx2;
    return kAvx512;
  }();
  const int allowed = widestAllowed.load(std::memory_order_relaxed);
  return widest < allowed ? widest : allowed;
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

// Bit g set for each of masks[0, groups) that is not 0.
std::uint64_t groupsWithCandidates(int search, const std::uint64_t* masks, std::size_t groups) {
  if (search == kAvx512) return groupsWithCandidatesAvx512(masks, groups);
  std::uint64_t bits = 0;
  for (std::size_t g = 0; g < groups; ++g)
    bits |= static_cast<std::uint64_t>(masks[g] != 0) << g;
  return bits;
}

}  // namespace

void WordReader::findTriggerCandidates() {
  // A stretch of 64 groups (4 KB) at a time: long enough that the search
  // runs in bulk, short enough that what it marks is still in the first-level
  // cache when it is taken up.
  static_assert(kStretchGroups == 64, "groupsLeft_ and groupsWithCandidates: a bit per group");
  std::size_t at = searched_;
  const std::size_t stop =
      end_ - at > kStretchGroups * kGroup ? at + kStretchGroups * kGroup : end_;
  stretchAt_ = at;
  std::size_t g = 0;
  // A looser test, one byte at a time, for a group that the vector search
  // cannot take (the buffer's first, or one near its end): a 'p' or 'c'
  // after a byte of at most ' ', or at the start of the buffer.
  auto oneByOne = [&] {
    const std::size_t to = stop - at > kGroup ? at + kGroup : stop;
    std::uint64_t mask = 0;
    for (std::size_t i = at; i < to; ++i) {
      const char b = data_[i];
      if ((b == 'p' || b == 'c') && (i == 0 || static_cast<unsigned char>(data_[i - 1]) <= ' '))
        mask |= std::uint64_t{1} << (i - at);
    }
    groupCandidates_[g++] = mask;
    at = to;
  };
  if (at == 0 && at < stop) oneByOne();
  // Whole groups with their byte before and the bytes after in the buffer.
  const std::size_t wholeEnd =
      end_ >= kGroupLookahead && stop > end_ - kGroupLookahead ? end_ - kGroupLookahead : stop;
  if (wholeEnd > at) {
    std::size_t groups = (wholeEnd - at) / kGroup;
    if (groups > kStretchGroups - g) groups = kStretchGroups - g;
    switch (search_) {
      case kAvx512:
        searchGroupsAvx512(data_, at, groups, groupCandidates_ + g);
        break;
      case kAvx2:
        searchGroupsAvx2(data_, at, groups, groupCandidates_ + g);
        break;
      default:
        searchGroupsSse2(data_, at, groups, groupCandidates_ + g);
        break;
    }
    g += groups;
    at += groups * kGroup;
  }
  // The rest of the stretch when it ends at the end of the buffer.
  if (stop == end_) {
    while (at < stop && g < kStretchGroups)
      oneByOne();
  }
  groupsLeft_ = groupsWithCandidates(search_, groupCandidates_, g);
  searched_ = at;
}

bool WordReader::nextCandidates() {
  if (searched_ >= end_) {
    taking_ = 0;
    skipToLastWord();
    return false;
  }
  findTriggerCandidates();
  return true;
}

bool WordReader::skipToTrigger() {
  std::uint64_t taking = taking_;
  for (;;) {
    while (taking == 0) {
      if (groupsLeft_ == 0) {
        if (__builtin_expect(!nextCandidates(), 0)) return false;
        continue;
      }
      const unsigned g = lowestBit64(groupsLeft_);
      groupsLeft_ &= groupsLeft_ - 1;
      taking = groupCandidates_[g];
      takingAt_ = stretchAt_ + kGroup * g;
    }
    const std::size_t at = takingAt_ + lowestBit64(taking);
    taking &= taking - 1;
    if (at < pos_) continue;  // passed over by reads since it was marked
    // pos_ is at a word boundary, so a word starts there if anywhere.
    if (at != pos_ && !isWordSpace(data_[at - 1])) continue;
    const int length = triggerLength(data_, at, end_);
    if (length == kNotTrigger) continue;
    taking_ = taking;
    if (__builtin_expect(length == kCannotTell, 0)) {
      pos_ = at;
      forgetWords();
      return false;
    }
    word_ = std::string_view(data_ + at, static_cast<std::size_t>(length));
    pos_ = at + static_cast<std::size_t>(length);
    // The scans read on after a trigger word, mostly no further than its
    // value: have the words of the next 16 bytes ready.
    if (__builtin_expect(end_ - pos_ >= 16, 1)) {
      learnWords16();
    } else {
      forgetWords();
    }
    return true;
  }
}

void WordReader::skipToLastWord() {
  forgetWords();
  std::size_t last = end_;
  while (last > pos_ && isWordSpace(data_[last - 1]))
    --last;
  if (last == pos_) return;  // only separators left
  while (last > pos_ && !isWordSpace(data_[last - 1]))
    --last;
  pos_ = last;
}

void WordReader::skipToPossibleColon() {
  forgetWords();
  const std::size_t at = findPossibleColon(data_, pos_, end_);
  if (at < end_) {
    pos_ = at;
  } else {
    skipToLastWord();
  }
}

void useSse2OnlyForTesting(bool sse2) {
  widestAllowed.store(sse2 ? kSse2 : kAvx512, std::memory_order_relaxed);
}

void limitSearchForTesting(int widest) {
  widestAllowed.store(widest < kSse2     ? kSse2
                      : widest > kAvx512 ? kAvx512
                                         : widest,
                      std::memory_order_relaxed);
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
