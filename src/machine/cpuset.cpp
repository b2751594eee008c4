// Processor sets.
#include <algorithm>
#include <iterator>

#include "machine/machine.h"

namespace xrprocdetector {

CpuSet::CpuSet(std::vector<unsigned> cpus) : cpus_(std::move(cpus)) {
  std::sort(cpus_.begin(), cpus_.end());
  cpus_.erase(std::unique(cpus_.begin(), cpus_.end()), cpus_.end());
}

std::optional<CpuSet> CpuSet::fromList(const std::string& text) {
  CpuSet set;
  std::string why;
  if (!detail::parseProcessorList(text, detail::kKernelMaxProcessors, &set.cpus_, &why))
    return std::nullopt;
  return set;
}

std::string CpuSet::toList() const {
  return detail::formatProcessorList(cpus_);
}

std::size_t CpuSet::count() const noexcept {
  return cpus_.size();
}

bool CpuSet::empty() const noexcept {
  return cpus_.empty();
}

bool CpuSet::contains(unsigned cpu) const noexcept {
  return std::binary_search(cpus_.begin(), cpus_.end(), cpu);
}

CpuSet::const_iterator CpuSet::begin() const noexcept {
  return cpus_.begin();
}

CpuSet::const_iterator CpuSet::end() const noexcept {
  return cpus_.end();
}

CpuSet CpuSet::operator&(const CpuSet& other) const {
  CpuSet both;
  std::set_intersection(cpus_.begin(), cpus_.end(), other.cpus_.begin(), other.cpus_.end(),
                        std::back_inserter(both.cpus_));
  return both;
}

bool CpuSet::operator==(const CpuSet& other) const noexcept {
  return cpus_ == other.cpus_;
}

bool CpuSet::operator!=(const CpuSet& other) const noexcept {
  return cpus_ != other.cpus_;
}

}  // namespace xrprocdetector
