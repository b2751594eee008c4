/// \file
/// Sets of processor numbers, such as a thread's affinity or the processors
/// of one core: a value of fixed width, the C interface's xrpd_cpuset.
///
/// \code
/// #include <xrprocdetector/cpuset.h>
/// const auto set = xrprocdetector::CpuSet::fromList("0-3,8");
/// for (unsigned cpu : *set) std::printf("%u\n", cpu);  // 0 1 2 3 8
/// \endcode
#ifndef XRPROCDETECTOR_CPUSET_H
#define XRPROCDETECTOR_CPUSET_H

#include <sched.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <xrprocdetector/c_api.h>

namespace xrprocdetector {

/// A set of processor numbers, each below the kernel's limit of 8192: a bit
/// a processor, held in the value itself (1 KiB), so that sets are made,
/// copied and compared without allocating. Iterates in increasing order.
class CpuSet {
 public:
  /// Processor numbers are below this, the largest NR_CPUS of the kernel.
  static constexpr unsigned kLimit = 8192;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = unsigned;
    using difference_type = std::ptrdiff_t;
    using pointer = const unsigned*;
    using reference = unsigned;
    const_iterator(const CpuSet* set, unsigned cpu) : set_(set), cpu_(cpu) {}
    unsigned operator*() const { return cpu_; }
    const_iterator& operator++() {
      cpu_ = set_->next(cpu_ + 1);
      return *this;
    }
    bool operator==(const const_iterator& other) const { return cpu_ == other.cpu_; }
    bool operator!=(const const_iterator& other) const { return cpu_ != other.cpu_; }

   private:
    const CpuSet* set_;
    unsigned cpu_;
  };

  CpuSet() = default;
  /// The processors of `cpus`, in any order; repeats count once, numbers at
  /// or above kLimit are left out.
  explicit CpuSet(const std::vector<unsigned>& cpus) {
    for (const unsigned c : cpus)
      add(c);
  }
  /// The set the C interface holds.
  static CpuSet fromC(const xrpd_cpuset& set) noexcept {
    CpuSet out;
    out.set_ = set;
    return out;
  }
  /// The set as the C interface holds it.
  const xrpd_cpuset& c() const noexcept { return set_; }
  /// The set of a cpu_set_t of `bytes` bytes, such as sched_getaffinity
  /// fills (CPU_ALLOC_SIZE for a dynamic one).
  static CpuSet fromCpuSetT(const cpu_set_t* set, std::size_t bytes) noexcept {
    CpuSet out;
    for (unsigned cpu = 0; cpu < kLimit && cpu < bytes * 8; ++cpu)
      if (CPU_ISSET_S(cpu, bytes, set)) out.add(cpu);
    return out;
  }
  /// Writes the set into a cpu_set_t of `bytes` bytes; false, with the
  /// processors that fit written, when some do not fit.
  bool toCpuSetT(cpu_set_t* set, std::size_t bytes) const noexcept {
    CPU_ZERO_S(bytes, set);
    for (const unsigned cpu : *this)
      if (cpu < bytes * 8) CPU_SET_S(cpu, bytes, set);
    return next(static_cast<unsigned>(std::min<std::size_t>(bytes * 8, kLimit))) == kLimit;
  }

  /// The set of a list in the kernel's format ("0-3,8"; "" is the empty
  /// set; one line end may follow); nothing when `text` is not such a list
  /// or names a processor at or above kLimit.
  static std::optional<CpuSet> fromList(const std::string& text) {
    CpuSet set;
    if (xrpd_cpuset_from_list(text.c_str(), &set.set_) != 0 || text.find('\0') != std::string::npos)
      return std::nullopt;
    return set;
  }
  /// The kernel's list format: "0-3,8", "" for the empty set.
  std::string toList() const {
    std::string out;
    for (unsigned first = next(0), last; first < kLimit; first = next(last + 1)) {
      for (last = first; last + 1 < kLimit && contains(last + 1);)
        ++last;
      out += (out.empty() ? "" : ",") + std::to_string(first);
      if (last > first) out += "-" + std::to_string(last);
    }
    return out;
  }

  std::size_t count() const noexcept {
    std::size_t n = 0;
    for (const std::uint64_t w : set_.bits)
      n += static_cast<std::size_t>(__builtin_popcountll(w));
    return n;
  }
  bool empty() const noexcept { return next(0) == kLimit; }
  bool contains(unsigned cpu) const noexcept {
    return cpu < kLimit && (set_.bits[cpu / 64] >> (cpu % 64) & 1) != 0;
  }
  /// Adds `cpu`; a number at or above kLimit is left out.
  void add(unsigned cpu) noexcept {
    if (cpu < kLimit) set_.bits[cpu / 64] |= std::uint64_t{1} << (cpu % 64);
  }
  /// Removes `cpu`, where the set holds it.
  void remove(unsigned cpu) noexcept {
    if (cpu < kLimit) set_.bits[cpu / 64] &= ~(std::uint64_t{1} << (cpu % 64));
  }
  /// The lowest processor of the set from `from` on; kLimit when none is.
  unsigned next(unsigned from) const noexcept {
    for (unsigned w = from / 64; from < kLimit; from = ++w * 64) {
      const std::uint64_t bits = set_.bits[w] >> (from % 64);
      if (bits != 0) return from + static_cast<unsigned>(__builtin_ctzll(bits));
    }
    return kLimit;
  }
  const_iterator begin() const noexcept { return {this, next(0)}; }
  const_iterator end() const noexcept { return {this, kLimit}; }

  /// The processors in both sets.
  CpuSet operator&(const CpuSet& other) const noexcept {
    return combined(other, [](std::uint64_t a, std::uint64_t b) { return a & b; });
  }
  /// The processors in either set.
  CpuSet operator|(const CpuSet& other) const noexcept {
    return combined(other, [](std::uint64_t a, std::uint64_t b) { return a | b; });
  }
  /// The processors of this set that are not in `other`.
  CpuSet operator-(const CpuSet& other) const noexcept {
    return combined(other, [](std::uint64_t a, std::uint64_t b) { return a & ~b; });
  }
  bool operator==(const CpuSet& other) const noexcept {
    for (unsigned w = 0; w < kLimit / 64; ++w) {
      if (set_.bits[w] != other.set_.bits[w]) return false;
    }
    return true;
  }
  bool operator!=(const CpuSet& other) const noexcept { return !(*this == other); }

 private:
  template <class Op>
  CpuSet combined(const CpuSet& other, Op op) const noexcept {
    CpuSet out;
    for (unsigned w = 0; w < kLimit / 64; ++w)
      out.set_.bits[w] = op(set_.bits[w], other.set_.bits[w]);
    return out;
  }

  xrpd_cpuset set_ = {};
};

}  // namespace xrprocdetector

#endif  // XRPROCDETECTOR_CPUSET_H
