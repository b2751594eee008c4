#include "kernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <vector>

namespace xrprocdetect {

namespace {

// Reads the file `path` under the directory `dir`, without its trailing
// white space. False when it cannot be opened or read.
bool readSmall(int dir, const char* path, std::string* text) {
  text->clear();
  const int fd = ::openat(dir, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[4096];
  bool ok = true;
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0 && text->size() < (1u << 20)) {
      text->append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0) {
      break;
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      ok = false;
      break;
    }
  }
  ::close(fd);
  while (!text->empty() && std::strchr(" \t\n\r", text->back()) != nullptr)
    text->pop_back();
  return ok;
}

constexpr unsigned kMaxProcessor = 1u << 16;

// A processor list as sysfs writes it ("0-3,8,10-11"); false if malformed.
bool parseList(const std::string& text, std::vector<unsigned>* out) {
  out->clear();
  const char* p = text.c_str();
  while (*p != '\0') {
    char* end = nullptr;
    const unsigned long first = std::strtoul(p, &end, 10);
    if (end == p || first >= kMaxProcessor) return false;
    unsigned long last = first;
    p = end;
    if (*p == '-') {
      last = std::strtoul(p + 1, &end, 10);
      if (end == p + 1 || last < first || last >= kMaxProcessor) return false;
      p = end;
    }
    for (unsigned long c = first; c <= last; ++c)
      out->push_back(static_cast<unsigned>(c));
    if (*p == ',')
      ++p;
    else if (*p != '\0')
      return false;
  }
  return true;
}

// A cpumask as sysfs writes it: 32-bit hexadecimal words, most significant
// first, separated by commas.
bool parseMask(const std::string& text, std::vector<unsigned>* out) {
  out->clear();
  unsigned bit = 0;
  for (std::size_t i = text.size(); i-- > 0;) {
    const char c = text[i];
    if (c == ',') continue;
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0 || bit >= kMaxProcessor) return false;
    for (int b = 0; b < 4; ++b) {
      if (digit & (1 << b)) out->push_back(bit + static_cast<unsigned>(b));
    }
    bit += 4;
  }
  std::sort(out->begin(), out->end());
  return true;
}

bool readNumber(int dir, const char* path, long* value) {
  std::string text;
  if (!readSmall(dir, path, &text) || text.empty()) return false;
  char* end = nullptr;
  *value = std::strtol(text.c_str(), &end, 10);
  return *end == '\0';
}

// The online processors sharing a core with `cpu` (itself included), by
// the first of the kernel's sibling files that is there. *first is where to
// start looking: the kind that the previous processor had, as a machine's
// processors all have the same files.
bool coreSiblings(int dir, unsigned cpu, std::size_t* first, std::vector<unsigned>* out) {
  // Lists, then the masks of older kernels.
  static const char* const kFiles[] = {"core_cpus_list", "thread_siblings_list", "core_cpus",
                                       "thread_siblings"};
  constexpr std::size_t kCount = std::size(kFiles);
  char path[96];
  std::string text;
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::size_t kind = (*first + i) % kCount;
    std::snprintf(path, sizeof path, "cpu%u/topology/%s", cpu, kFiles[kind]);
    if (!readSmall(dir, path, &text)) continue;
    *first = kind;
    return kind < 2 ? parseList(text, out) : parseMask(text, out);
  }
  return false;
}

// Packages, cores and the most threads of one core, over `online`.
void countTopology(int dir, const std::vector<unsigned>& online, KernelTopology* k,
                   int* maxThreads) {
  std::set<long> packages;
  std::vector<bool> isOnline(online.back() + 1, false);
  for (const unsigned c : online)
    isOnline[c] = true;
  std::vector<int> coreOf(isOnline.size(), -1);
  std::vector<int> threads;  // by core
  std::map<std::tuple<long, long, long>, int> byIds;
  bool packagesKnown = true;
  bool coresKnown = true;
  char path[96];
  std::vector<unsigned> siblings;
  std::size_t kind = 0;
  for (const unsigned c : online) {
    // A sibling of a core already counted shares its package too.
    if (coreOf[c] >= 0) continue;
    long package = 0;
    std::snprintf(path, sizeof path, "cpu%u/topology/physical_package_id", c);
    const bool havePackage = readNumber(dir, path, &package);
    if (havePackage) packages.insert(package);
    packagesKnown = packagesKnown && havePackage;
    if (!coresKnown) continue;
    if (coreSiblings(dir, c, &kind, &siblings)) {
      // Each sibling that is online belongs to this core; their own files
      // need not be read.
      const int core = static_cast<int>(threads.size());
      coreOf[c] = core;
      int count = 1;
      for (const unsigned s : siblings) {
        if (s == c || s >= isOnline.size() || !isOnline[s] || coreOf[s] >= 0) continue;
        coreOf[s] = core;
        ++count;
      }
      threads.push_back(count);
      continue;
    }
    // No sibling files: the core is (package, die, core_id).
    long die = 0;
    long coreId = 0;
    std::snprintf(path, sizeof path, "cpu%u/topology/die_id", c);
    if (!readNumber(dir, path, &die)) die = 0;
    std::snprintf(path, sizeof path, "cpu%u/topology/core_id", c);
    if (!havePackage || !readNumber(dir, path, &coreId)) {
      coresKnown = false;
      continue;
    }
    const auto key = std::make_tuple(package, die, coreId);
    auto found = byIds.find(key);
    if (found == byIds.end()) {
      found = byIds.emplace(key, static_cast<int>(threads.size())).first;
      threads.push_back(0);
    }
    coreOf[c] = found->second;
    ++threads[static_cast<std::size_t>(found->second)];
  }
  if (packagesKnown) {
    k->packages = static_cast<std::int32_t>(packages.size());
  } else {
    k->missing = "no physical_package_id";
  }
  if (coresKnown) {
    k->cores = static_cast<std::int32_t>(threads.size());
    for (const int t : threads)
      *maxThreads = std::max(*maxThreads, t);
  } else {
    k->missing += std::string(k->missing.empty() ? "" : ", ") + "no core sibling lists or core_id";
  }
}

// Simultaneous multithreading, from smt/control and smt/active where the
// kernel has them (since 4.19), else from the sibling counts:
//   control "off" or "forceoff"         -> off: capable, switched off;
//   control "notsupported"              -> notsupported: the kernel found
//                                          the processors without it;
//   active 1                            -> on: some core runs two threads;
//   control "on" and active 0           -> off: allowed, but no core runs
//                                          two threads now;
//   otherwise ("notimplemented", or no smt files): on where some core has
//   two or more online threads; else not known, because one thread a core
//   cannot tell processors without SMT from SMT turned off in firmware.
std::optional<Smt> smtState(int dir, int maxThreads) {
  std::string control;
  std::string active;
  const bool haveControl = readSmall(dir, "sys/devices/system/cpu/smt/control", &control);
  const bool haveActive = readSmall(dir, "sys/devices/system/cpu/smt/active", &active);
  if (haveControl && (control == "off" || control == "forceoff")) return Smt::kOff;
  if (haveControl && control == "notsupported") return Smt::kNotSupported;
  if (haveActive && active == "1") return Smt::kOn;
  if (haveControl && haveActive && control == "on" && active == "0") return Smt::kOff;
  if (maxThreads >= 2) return Smt::kOn;
  return std::nullopt;
}

bool contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

// VMware names itself in the DMI strings of its virtual firmware, which
// every VMware machine has. Another hypervisor shows in the processor's
// hypervisor flag (which every hypervisor of this century sets), in
// /sys/hypervisor/type (Xen), or in DMI strings that name it. No flag on a
// flags line that is there, and nothing else, is no virtual machine; with
// neither flags nor DMI nothing is known.
std::optional<Vm> vmState(int dir, const std::string* cpuinfo) {
  std::string vendor;
  std::string product;
  std::string type;
  readSmall(dir, "sys/class/dmi/id/sys_vendor", &vendor);
  readSmall(dir, "sys/class/dmi/id/product_name", &product);
  readSmall(dir, "sys/hypervisor/type", &type);
  const std::string dmi = vendor + "\n" + product;
  if (contains(dmi, "VMware")) return Vm::kVmware;
  bool flagsLine = false;
  bool flag = false;
  if (cpuinfo != nullptr) {
    for (std::size_t at = 0; at < cpuinfo->size();) {
      std::size_t end = cpuinfo->find('\n', at);
      if (end == std::string::npos) end = cpuinfo->size();
      if (cpuinfo->compare(at, 5, "flags") == 0) {
        const std::string line = " " + cpuinfo->substr(at, end - at) + " ";
        flagsLine = true;
        flag = contains(line, " hypervisor ");
        break;
      }
      at = end + 1;
    }
  }
  static const char* const kHypervisors[] = {"QEMU",       "KVM",       "Xen",
                                             "VirtualBox", "innotek",   "Bochs",
                                             "BHYVE",      "Parallels", "Virtual Machine"};
  bool named = false;
  for (const char* name : kHypervisors)
    named = named || contains(dmi, name);
  if (flag || !type.empty() || named) return Vm::kOther;
  if (flagsLine) return Vm::kNone;
  return std::nullopt;
}

}  // namespace

KernelTopology readKernelTopology(const std::string& root, const std::string* cpuinfo) {
  KernelTopology k;
  const int dir = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) {
    k.missing = root + ": " + std::strerror(errno);
    return k;
  }
  std::string text;
  std::vector<unsigned> online;
  int maxThreads = 0;
  if (!readSmall(dir, "sys/devices/system/cpu/online", &text)) {
    k.missing = "no sys/devices/system/cpu/online";
  } else if (!parseList(text, &online) || online.empty()) {
    k.missing = "sys/devices/system/cpu/online unreadable";
  } else {
    k.logical = static_cast<std::int32_t>(online.size());
    // The processors' files by names relative to their folder, which the
    // kernel then looks up in fewer steps.
    const int cpus = ::openat(dir, "sys/devices/system/cpu", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    countTopology(cpus, online, &k, &maxThreads);
    if (cpus >= 0) ::close(cpus);
  }
  k.smt = smtState(dir, maxThreads);
  k.vm = vmState(dir, cpuinfo);
  ::close(dir);
  return k;
}

std::optional<Smt> smtOf(const Row& row) {
  if (!row.counted) return std::nullopt;
  switch (row.hyperThreadState) {
    case 0:
      return Smt::kNotSupported;
    case 1:
      return Smt::kOff;
    case 2:
    case 3:
      return Smt::kOn;
    default:
      return std::nullopt;  // 15: not determined
  }
}

std::optional<Vm> vmOf(const Row& row) {
  if (!row.counted) return std::nullopt;
  if (row.vmState == 0) return Vm::kNone;
  if (row.vmState == 1) return Vm::kVmware;
  // 15 names an unknown virtual machine only after the CPUID estimate;
  // elsewhere it is the detectors' "not determined".
  if (row.vmState == 15 && row.endedBy == Strategy::kCpuid) return Vm::kOther;
  return std::nullopt;
}

Agreement compareWithKernel(const Row& row, const KernelTopology& k) {
  Agreement a;
  if (!row.counted) return a;
  auto same = [](auto mine, auto theirs) {
    if (!mine || !theirs) return Same::kUnknown;
    return *mine == *theirs ? Same::kYes : Same::kNo;
  };
  a.packages = same(std::optional<std::int32_t>(row.physicalCount), k.packages);
  a.cores = same(std::optional<std::int32_t>(row.coreCount), k.cores);
  a.logical = same(std::optional<std::int32_t>(row.logicalCount), k.logical);
  a.smt = same(smtOf(row), k.smt);
  a.vm = same(vmOf(row), k.vm);
  return a;
}

const char* smtKey(Smt smt) {
  switch (smt) {
    case Smt::kOn:
      return "on";
    case Smt::kOff:
      return "off";
    case Smt::kNotSupported:
      break;
  }
  return "notsupported";
}

const char* vmKey(Vm vm) {
  switch (vm) {
    case Vm::kVmware:
      return "vmware";
    case Vm::kOther:
      return "other";
    case Vm::kNone:
      break;
  }
  return "none";
}

}  // namespace xrprocdetect
