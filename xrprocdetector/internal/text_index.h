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

  TextIndex() { clear(); }
  // An index whose slots are left unset, for an owner that clears it before
  // its first use: setting up 1 KB that is never searched is not free when
  // the owner is made for one value.
  struct Unset {};
  explicit TextIndex(Unset) {}

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

  std::uint16_t slots_[kSlots];  // position + 1; 0 is a free slot
};

// Finds texts in one of the lists of distinct texts that the scans keep (the
// processor numbers, the packages' physical ids, a record's core ids, the 6.0
// scan's lists), for a writer that appends a text when it is not found.
// Up to kSearchedDirectly entries a list is searched from the first: the
// usual one or two core ids of a record, or the few packages of a machine.
// Past that it is searched through a TextIndex, built from the list when a
// search first needs it, or when the list is not the one indexed last or has
// another length than the index knows, and kept in step by appended().
//
// Where a list holds a text twice (only a table set up by hand can), the
// index keeps the first position, as a search from the first entry finds it.
class ListFinder {
 public:
  static constexpr std::int32_t kSearchedDirectly = 8;

  // The position of `v` among entries 0 .. count - 1 of `list`, whose texts
  // textAt(i) gives, or -1. At most the first kMaxTexts entries are looked at.
  template <class TextAt>
  int find(const void* list, std::int32_t count, std::string_view v, const TextAt& textAt) {
    indexing_ = count > kSearchedDirectly;
    if (!indexing_) {
      for (std::int32_t i = 0; i < count; ++i) {
        if (sameText(textAt(i), v)) return i;
      }
      return -1;
    }
    if (list != list_ || count != indexed_) {
      index_.clear();
      std::size_t slot = 0;
      for (std::int32_t i = 0; i < count && i < TextIndex::kMaxTexts; ++i) {
        if (index_.find(textAt(i), textAt, &slot) < 0) index_.insert(slot, i);
      }
      list_ = list;
      indexed_ = count;
    }
    return index_.find(v, textAt, &slot_);
  }

  // After a find() of the same list that gave -1: the text sought is now
  // entry `position`, which is the list's old count.
  void appended(std::int32_t position) {
    if (!indexing_) return;
    index_.insert(slot_, position);
    indexed_ = position + 1;
  }

 private:
  // Set up when first built, not before: the index is searched only for a
  // list of more than kSearchedDirectly entries, and the first such search
  // finds indexed_ at 0, so it clears and builds the index first.
  TextIndex index_{TextIndex::Unset{}};
  const void* list_ = nullptr;
  std::int32_t indexed_ = 0;  // the entries that index_ covers, from the first
  std::size_t slot_ = 0;      // where the text last not found goes in index_
  bool indexing_ = false;     // the last find() went through index_
};

}  // namespace detail
}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_INTERNAL_TEXT_INDEX_H
