// A small hash index over the distinct texts of a fixed table (at most 256
// of them, kept by the table itself in positions 0, 1, ...), so that finding
// a text costs one or two comparisons instead of one per entry.
//
// Since the texts are distinct, "the position whose text equals v" is the
// same answer that a search from position 0 up gives; the index only finds it
// sooner. It never owns or copies a text: it holds positions, and every hit
// is confirmed by comparing the table's own text.
#ifndef XRPROCDETECTOR_INTERNAL_TEXT_INDEX_H
#define XRPROCDETECTOR_INTERNAL_TEXT_INDEX_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace xrprocdetector {
namespace detail {

// Exact equality of two texts (same length, same bytes), written out for the
// short texts of /proc/cpuinfo, where a call to memcmp costs more than the
// comparison itself.
inline bool sameText(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  if (a.size() > 16) return std::memcmp(a.data(), b.data(), a.size()) == 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

class TextIndex {
 public:
  static constexpr int kMaxTexts = 256;

  // The position of the text equal to `v`, or -1. `textAt(i)` gives the
  // table's text at position i (anything comparable with a string_view).
  // On -1, *slot is where insert() puts `v`.
  template <class TextAt>
  int find(std::string_view v, const TextAt& textAt, std::size_t* slot) const {
    std::size_t s = hash(v) & kMask;
    for (;;) {
      const int position = slots_[s] - 1;
      if (position < 0) break;
      if (sameText(textAt(position), v)) return position;
      s = (s + 1) & kMask;
    }
    *slot = s;
    return -1;
  }

  // Records that the text at `position` hashes to the free `slot` that
  // find() returned for it. Holds at most kMaxTexts positions.
  void insert(std::size_t slot, int position) {
    slots_[slot] = static_cast<std::uint16_t>(position + 1);
  }

  void clear() { std::memset(slots_, 0, sizeof slots_); }

 private:
  // Twice the texts that the index holds, so that a search runs into a free
  // slot soon; open addressing with linear probing.
  static constexpr unsigned kSlotBits = 9;
  static constexpr std::size_t kSlots = std::size_t{1} << kSlotBits;
  static_assert(kSlots == 2 * kMaxTexts, "twice the texts");
  static constexpr std::size_t kMask = kSlots - 1;

  // /proc/cpuinfo values are short, mostly decimal numbers: a text of up to
  // eight bytes is gathered into one word with loads that do not wait for
  // one another (overlapping for four to eight bytes; first, middle and last
  // byte for one to three), longer ones eight bytes at a time, and the words
  // are mixed by multiplication. Every text has one hash, so the index finds
  // the same positions whatever the hash is; this one only takes fewer
  // dependent steps than a byte-by-byte hash.
  static std::size_t hash(std::string_view v) {
    constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15ull;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(v.data());
    std::size_t n = v.size();
    std::uint64_t h = n;
    for (; n > 8; n -= 8, p += 8)
      h = (h ^ load64(p)) * kMix;
    std::uint64_t w = 0;
    if (n >= 4) {
      w = load32(p) | load32(p + n - 4) << 32;
    } else if (n > 0) {
      w = std::uint64_t{p[0]} | std::uint64_t{p[n / 2]} << 8 | std::uint64_t{p[n - 1]} << 16;
    }
    h = (h ^ w) * kMix;
    return static_cast<std::size_t>(h >> (64 - kSlotBits));  // the best-mixed bits
  }
  // The eight or four bytes at p as a number.
  static std::uint64_t load64(const unsigned char* p) {
    std::uint64_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
  }
  static std::uint64_t load32(const unsigned char* p) {
    std::uint32_t w;
    std::memcpy(&w, p, sizeof w);
    return w;
  }

  std::uint16_t slots_[kSlots] = {};  // position + 1; 0 is a free slot
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_TEXT_INDEX_H
