// A saved machine answering in this one's place.
#include <unistd.h>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

ReplayMachine::ReplayMachine(const SavedMachine& saved) : saved_(saved), current_(saved.affinity) {}

Read ReplayMachine::file(const std::string& path, std::size_t cap, std::string* text,
                         std::string* why) {
  text->clear();
  const auto file = saved_.files.find(path);
  const auto failed = saved_.failures.find(path);
  if (file != saved_.files.end() && file->second.size() <= cap) *text = file->second;
  *why = file != saved_.files.end()        ? (file->second.size() <= cap ? "" : largerThan(cap))
         : failed != saved_.failures.end() ? failed->second
                                           : "";
  return file != saved_.files.end() && why->empty() ? Read::kOk
         : why->empty()                             ? Read::kAbsent
                                                    : Read::kFailed;
}

Read ReplayMachine::entries(const std::string& path, std::vector<std::string>* names) {
  const auto folder = saved_.folders.find(path);
  *names = folder != saved_.folders.end() ? folder->second : std::vector<std::string>();
  return folder != saved_.folders.end() ? Read::kOk : Read::kAbsent;
}

CpuinfoStream ReplayMachine::cpuinfo() {
  const auto file = saved_.files.find("proc/cpuinfo");
  if (file == saved_.files.end()) throw Missing{"/proc/cpuinfo"};
  CpuinfoStream s;
  s.text = &file->second;
  return s;
}

CpuidRegisters ReplayMachine::cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  // The processor the thread runs on: the lowest of its set.
  if (!current_ || current_->empty()) throw Missing{"the affinity"};
  const unsigned cpu = *current_->begin();
  const auto same = saved_.sameDump.find(cpu);
  const auto dump = saved_.cpuid.find(same != saved_.sameDump.end() ? same->second : cpu);
  if (dump == saved_.cpuid.end()) throw Missing{"cpuid/pu" + std::to_string(cpu)};
  return dumpAnswer(dump->second, leaf, subleaf);
}

std::uint32_t ReplayMachine::backdoor() {
  // A port that faulted or answered otherwise reads as no answer.
  return saved_.vmwareBackdoor ? kVmwareMagic : 0;
}

long ReplayMachine::processorCount(int name) {
  const auto& count = name == _SC_NPROCESSORS_CONF ? saved_.configured : saved_.online;
  if (count) return *count;
  // A text alone is no system: it has no processors of its own to count.
  if (saved_.dir.empty()) throw Missing{"the system's processor count"};
  throw Missing{name == _SC_NPROCESSORS_CONF ? "the configured processor count"
                                             : "the online processor count"};
}

bool ReplayMachine::affinity(CpuSet* set) {
  if (!current_) throw Missing{"the affinity"};
  *set = *current_;
  return true;
}

bool ReplayMachine::pin(const CpuSet& set) {
  if (!saved_.affinity) throw Missing{"the affinity"};
  CpuSet allowed = set & *saved_.affinity;
  if (allowed.empty()) return false;
  current_ = std::move(allowed);
  return true;
}

CpuidRegisters dumpAnswer(const CpuidDump& dump, std::uint32_t leaf, std::uint32_t subleaf) {
  const std::uint32_t query[4] = {leaf, 0, subleaf, 0};
  for (const CpuidLine& l : dump) {
    bool match = true;
    for (int r = 0; r < 4; ++r) {
      if ((l.mask >> r & 1) != 0 && l.in[r] != query[r]) match = false;
    }
    if (match) return {l.out[0], l.out[1], l.out[2], l.out[3]};
  }
  return {0, 0, 0, 0};
}

}  // namespace detail
}  // namespace xrprocdetector
