// Processor sets: a bit a processor.
#include "machine/machine.h"

namespace xrprocdetector {

CpuSet::CpuSet(std::vector<unsigned> cpus) {
  for (const unsigned c : cpus)
    add(c);
}

std::optional<CpuSet> CpuSet::fromList(const std::string& text) {
  CpuSet set;
  std::string why;
  if (!detail::parseProcessorList(text, &set, &why)) return std::nullopt;
  return set;
}

std::string CpuSet::toList() const {
  std::string out;
  for (unsigned first = next(0), last; first < kLimit; first = next(last + 1)) {
    for (last = first; last + 1 < kLimit && contains(last + 1);)
      ++last;
    out += (out.empty() ? "" : ",") + std::to_string(first);
    if (last > first) out += "-" + std::to_string(last);
  }
  return out;
}

std::size_t CpuSet::count() const noexcept {
  std::size_t n = 0;
  for (const std::uint64_t w : words_)
    n += static_cast<std::size_t>(__builtin_popcountll(w));
  return n;
}

bool CpuSet::empty() const noexcept {
  return next(0) == kLimit;
}

bool CpuSet::contains(unsigned cpu) const noexcept {
  return cpu < kLimit && (words_[cpu / 64] >> (cpu % 64) & 1) != 0;
}

void CpuSet::add(unsigned cpu) noexcept {
  if (cpu < kLimit) words_[cpu / 64] |= std::uint64_t{1} << (cpu % 64);
}

unsigned CpuSet::next(unsigned from) const noexcept {
  for (unsigned w = from / 64; from < kLimit; from = ++w * 64) {
    const std::uint64_t bits = words_[w] >> (from % 64);
    if (bits != 0) return from + static_cast<unsigned>(__builtin_ctzll(bits));
  }
  return kLimit;
}

CpuSet CpuSet::operator&(const CpuSet& other) const noexcept {
  CpuSet both;
  for (unsigned w = 0; w < kLimit / 64; ++w)
    both.words_[w] = words_[w] & other.words_[w];
  return both;
}

bool CpuSet::operator==(const CpuSet& other) const noexcept {
  for (unsigned w = 0; w < kLimit / 64; ++w) {
    if (words_[w] != other.words_[w]) return false;
  }
  return true;
}

bool CpuSet::operator!=(const CpuSet& other) const noexcept {
  return !(*this == other);
}

}  // namespace xrprocdetector
