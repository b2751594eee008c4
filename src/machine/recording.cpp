// This machine, keeping what was read.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Process 1's environment says what container it was started in, and may
// hold secrets besides: only its container= entry is kept.
std::string keptOf(const std::string& path, const std::string& text) {
  if (path != "proc/1/environ") return text;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\0', at), text.size());
    if (text.compare(at, 10, "container=") == 0) return text.substr(at, end - at + 1);
    at = end + 1;
  }
  return "";
}

CpuidLine lineOf(std::uint32_t mask, std::uint32_t leaf, std::uint32_t subleaf,
                 const CpuidRegisters& r) {
  return {mask, {leaf, 0, subleaf, 0}, {r.eax, r.ebx, r.ecx, r.edx}};
}

// Every standard, hypervisor and extended leaf up to the highest each range
// names, with the sub-leaves of 4, 0xb and 0x1f up to their terminators.
CpuidDump dumpThisProcessor(Machine& m) {
  constexpr std::uint32_t kMaxLeaves = 0x100;
  constexpr std::uint32_t kMaxSubleaves = 64;
  CpuidDump out;
  for (const std::uint32_t base : {0u, 0x40000000u, 0x80000000u}) {
    const std::uint32_t highest = m.cpuid(base, 0).eax;
    // The hypervisor range is there only when leaf 1 says a hypervisor is.
    if (highest < base || (base == 0x40000000u && (m.cpuid(1, 0).ecx >> 31) == 0)) continue;
    const std::uint32_t last = std::min(highest, base + kMaxLeaves - 1);
    for (std::uint32_t leaf = base; leaf <= last; ++leaf) {
      if (leaf != 4 && leaf != 0xb && leaf != 0x1f) {
        out.push_back(lineOf(1, leaf, 0, m.cpuid(leaf, 0)));
        continue;
      }
      for (std::uint32_t sub = 0; sub < kMaxSubleaves; ++sub) {
        const CpuidRegisters r = m.cpuid(leaf, sub);
        out.push_back(lineOf(5, leaf, sub, r));
        if (leaf == 4 ? (r.eax & 0x1F) == 0 : (r.ecx >> 8 & 0xFF) == 0) break;
      }
    }
  }
  return out;
}

// The whole of what `fd` holds, up to /proc/cpuinfo's cap.
bool readAll(int fd, std::string* text) {
  char buffer[64 * 1024];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) != 0;) {
    if (n < 0 && errno != EINTR) return false;
    if (n > 0) text->append(buffer, static_cast<std::size_t>(n));
    if (text->size() > kCpuinfoCap) return false;
  }
  return true;
}

}  // namespace

RecordingMachine::RecordingMachine(Machine& inner) : inner_(inner) {
  saved_.dir = "/";
  CpuSet set;
  if (inner_.affinity(&set)) saved_.affinity = current_ = set;
}

Read RecordingMachine::file(const std::string& path, std::size_t cap, std::string* text,
                            std::string* why) {
  const Read r = inner_.file(path, cap, text, why);
  if (r == Read::kOk) saved_.files[path] = keptOf(path, *text);
  if (r == Read::kFailed) saved_.failures[path] = *why;
  return r;
}

Read RecordingMachine::entries(const std::string& path, std::vector<std::string>* names) {
  const Read r = inner_.entries(path, names);
  if (r == Read::kOk) saved_.folders[path] = *names;
  return r;
}

CpuinfoStream RecordingMachine::cpuinfo() {
  const CpuinfoStream s = inner_.cpuinfo();
  std::string text = s.text != nullptr ? *s.text : "";
  const bool read = s.text != nullptr || (s.fd >= 0 && readAll(s.fd, &text));
  const int why = errno;
  if (s.fd >= 0) ::close(s.fd);
  if (!read) {
    saved_.failures["proc/cpuinfo"] =
        std::string(s.fd < 0 ? "cannot open: " : "cannot read: ") + std::strerror(why);
    throw Missing{"/proc/cpuinfo"};
  }
  CpuinfoStream out;
  out.text = &(saved_.files["proc/cpuinfo"] = std::move(text));
  return out;
}

CpuidRegisters RecordingMachine::cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  const CpuidRegisters r = inner_.cpuid(leaf, subleaf);
  // Kept only where the thread is pinned: elsewhere which processor
  // answered is not known.
  if (current_.count() == 1) saved_.cpuid[*current_.begin()].push_back(lineOf(5, leaf, subleaf, r));
  return r;
}

std::uint32_t RecordingMachine::backdoor() {
  const std::uint32_t answer = inner_.backdoor();  // returns only where there is a port
  saved_.vmwareBackdoor = answer == kVmwareMagic;
  return answer;
}

long RecordingMachine::processorCount(int name) {
  const long n = inner_.processorCount(name);
  (name == _SC_NPROCESSORS_CONF ? saved_.configured : saved_.online) = n;
  return n;
}

bool RecordingMachine::pin(const CpuSet& set) {
  if (!inner_.pin(set)) return false;
  current_ = set;
  return true;
}

bool RecordingMachine::dumpEveryProcessor(Error* error) {
  if (!saved_.affinity) return fail(error, "", "cannot read the thread's affinity");
  bool ok = true;
  for (const unsigned p : *saved_.affinity) {
    if (!inner_.pin(CpuSet({p}))) {
      ok = fail(
          error, "",
          "cannot pin the thread to processor " + std::to_string(p) + ": " + std::strerror(errno));
      break;
    }
    // The whole dump, then each answer the readers had that it would not give.
    CpuidDump dump = dumpThisProcessor(inner_);
    for (const CpuidLine& l : saved_.cpuid[p]) {
      const CpuidRegisters r = dumpAnswer(dump, l.in[0], l.in[2]);
      if (std::memcmp(&r, l.out, sizeof l.out) != 0) dump.push_back(l);
    }
    saved_.cpuid[p] = std::move(dump);
  }
  inner_.pin(*saved_.affinity);
  return ok;
}

}  // namespace detail
}  // namespace xrprocdetector
