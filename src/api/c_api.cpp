// The C interface: a thin layer over detect.h. Each function catches
// everything, so nothing is thrown across it.
#include <unistd.h>
#include <xrprocdetector/c_api.h>

#include <xrprocdetector/detect.h>
#include <algorithm>
#include <cstdlib>
#include <cstring>

struct xrpd_source {
  xrprocdetector::Source source;
};
struct xrpd_topology {
  xrprocdetector::Topology topology;
};
struct xrpd_budget {
  xrprocdetector::ProcessorBudget budget;
};

namespace {

using namespace xrprocdetector;

// A copy the caller frees with xrpd_free; NULL when memory ran out.
char* copy(const std::string& text) {
  char* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out != nullptr) std::memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

void say(char** error, const std::string& why) {
  if (error != nullptr) *error = copy(why);
}

// *out filled with `full` up to the size its caller knows; false when
// there is no struct or its size cannot even hold the size.
template <class T>
bool fill(T* out, T full) {
  if (out == nullptr || out->size < sizeof out->size) return false;
  full.size = out->size;
  std::memcpy(static_cast<void*>(out), &full, std::min(out->size, sizeof(T)));
  return true;
}

xrpd_cpuset bitsOf(const CpuSet& set) {
  xrpd_cpuset out{};
  for (const unsigned c : set)
    out.bits[c / 64] |= std::uint64_t{1} << (c % 64);
  return out;
}

CpuSet setOf(const xrpd_cpuset& bits) {
  CpuSet set;
  for (unsigned c = 0; c < CpuSet::kLimit; ++c) {
    if ((bits.bits[c / 64] >> (c % 64) & 1) != 0) set.add(c);
  }
  return set;
}

const Source& sourceOf(const xrpd_source* source) {
  static const Source live = Source::live();
  return source == nullptr ? live : source->source;
}

// A source of `make`, or NULL and *error.
template <class Make>
xrpd_source* open(Make make, char** error) {
  try {
    std::string why;
    std::optional<Source> source = make(&why);
    if (source) return new xrpd_source{std::move(*source)};
    say(error, why);
  } catch (...) {
    say(error, "out of memory");
  }
  return nullptr;
}

}  // namespace

extern "C" {

const char* xrpd_version(void) {
  return version();
}

void xrpd_free(void* pointer) {
  std::free(pointer);
}

int xrpd_effective_processors(void) {
  try {
    if (std::optional<ProcessorBudget> budget = ProcessorBudget::open())
      return budget->read().effectiveProcessors;
  } catch (...) {
  }
  return static_cast<int>(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L));
}

int xrpd_cpuset_count(const xrpd_cpuset* set) {
  return set == nullptr ? 0 : static_cast<int>(setOf(*set).count());
}

int xrpd_cpuset_contains(const xrpd_cpuset* set, unsigned cpu) {
  return set != nullptr && cpu < CpuSet::kLimit && (set->bits[cpu / 64] >> (cpu % 64) & 1) != 0;
}

char* xrpd_cpuset_to_list(const xrpd_cpuset* set) {
  try {
    return copy(set == nullptr ? "" : setOf(*set).toList());
  } catch (...) {
    return nullptr;
  }
}

xrpd_source* xrpd_source_live(void) {
  return open([](std::string*) { return std::optional<Source>(Source::live()); }, nullptr);
}

xrpd_source* xrpd_source_cpuinfo_text(const char* text, size_t length) {
  return open(
      [&](std::string*) {
        return std::optional<Source>(Source::cpuinfoText(std::string(text, text ? length : 0)));
      },
      nullptr);
}

xrpd_source* xrpd_source_cpuinfo_file(const char* path, char** error) {
  return open(
      [&](std::string* why) {
        Source source = Source::cpuinfoFile(path == nullptr ? "" : path);
        *why = source.error();
        return why->empty() ? std::optional<Source>(std::move(source)) : std::nullopt;
      },
      error);
}

xrpd_source* xrpd_source_snapshot(const char* dir, char** error) {
  return open([&](std::string* why) { return Source::snapshot(dir == nullptr ? "" : dir, why); },
              error);
}

void xrpd_source_close(xrpd_source* source) {
  delete source;
}

int xrpd_detect(xrpd_generation generation, const xrpd_source* source, xrpd_detection* out) {
  if (out == nullptr || generation < XRPD_GENERATION_53 || generation > XRPD_GENERATION_DEFAULT)
    return -1;
  try {
    const Detection d = detect(static_cast<Generation>(generation), sourceOf(source));
    const auto verdict = d.reportedVerdict ? static_cast<std::int32_t>(*d.reportedVerdict) : -1;
    // Strings only where the caller's struct has room for them.
    const bool strings = out->size >= offsetof(xrpd_detection, error) + sizeof(char*);
    return fill(out,
                xrpd_detection{0, d.counted, d.result, d.packages, d.cores, d.logicalProcessors,
                               static_cast<std::int32_t>(d.hyperThreading),
                               static_cast<std::int32_t>(d.vm), verdict,
                               static_cast<std::int32_t>(d.endedBy),
                               strings && !d.note.empty() ? copy(d.note) : nullptr,
                               strings && !d.error.empty() ? copy(d.error) : nullptr})
               ? 0
               : -1;
  } catch (...) {
    return -1;
  }
}

xrpd_topology* xrpd_topology_read(const xrpd_source* source, char** error) {
  try {
    return new xrpd_topology{topology(sourceOf(source))};
  } catch (...) {
    say(error, "out of memory");
    return nullptr;
  }
}

void xrpd_topology_close(xrpd_topology* topology) {
  delete topology;
}

int xrpd_topology_get(const xrpd_topology* topology, xrpd_topology_info* out) {
  if (topology == nullptr) return -1;
  const Topology& t = topology->topology;
  const auto count = [](std::size_t n) { return n == 0 ? -1 : static_cast<std::int32_t>(n); };
  const auto text = [](const std::optional<std::string>& s) { return s ? s->c_str() : nullptr; };
  return fill(out,
              xrpd_topology_info{0, bitsOf(t.online), bitsOf(t.offline), bitsOf(t.usable),
                                 count(t.packages.size()), count(t.cores.size()),
                                 static_cast<std::int32_t>(t.coreKinds.size()),
                                 static_cast<std::int32_t>(t.processors.size()),
                                 t.cpuQuota.value_or(0), t.effectiveProcessors.value_or(-1),
                                 t.smt ? static_cast<std::int32_t>(*t.smt) : -1,
                                 t.hypervisor ? static_cast<std::int32_t>(*t.hypervisor) : -1,
                                 text(t.hypervisorVendor), text(t.virtualizationType),
                                 text(t.container), t.error.empty() ? nullptr : t.error.c_str()})
             ? 0
             : -1;
}

int xrpd_topology_processor(const xrpd_topology* topology, size_t index, xrpd_processor* out) {
  if (topology == nullptr || index >= topology->topology.processors.size()) return -1;
  const Processor& p = topology->topology.processors[index];
  return fill(out, xrpd_processor{0, p.cpu, p.package, p.die, p.core, p.thread, p.kind, p.online,
                                  p.usable})
             ? 0
             : -1;
}

int xrpd_topology_set(const xrpd_topology* topology, xrpd_set_list list, size_t index,
                      xrpd_cpuset* out, const char** name) {
  if (topology == nullptr || out == nullptr) return -1;
  const Topology& t = topology->topology;
  const std::vector<CpuSet>& sets = list == XRPD_PACKAGES ? t.packages : t.cores;
  if (list == XRPD_CORE_KINDS ? index >= t.coreKinds.size() : index >= sets.size()) return -1;
  *out = bitsOf(list == XRPD_CORE_KINDS ? t.coreKinds[index].processors : sets[index]);
  if (name != nullptr) *name = list == XRPD_CORE_KINDS ? t.coreKinds[index].kind.c_str() : nullptr;
  return 0;
}

xrpd_budget* xrpd_budget_open(char** error) {
  try {
    std::string why;
    if (std::optional<ProcessorBudget> budget = ProcessorBudget::open(&why))
      return new xrpd_budget{std::move(*budget)};
    say(error, why);
  } catch (...) {
    say(error, "out of memory");
  }
  return nullptr;
}

int xrpd_budget_read(xrpd_budget* budget, xrpd_budget_reading* out) {
  if (budget == nullptr || out == nullptr) return -1;
  try {
    const Budget b = budget->budget.read();
    const bool error = out->size >= offsetof(xrpd_budget_reading, error) + sizeof(char*);
    return fill(out,
                xrpd_budget_reading{0, static_cast<int>(b.usable.count()), b.cpuQuota.value_or(0),
                                    b.effectiveProcessors, bitsOf(b.usable),
                                    error && !b.error.empty() ? copy(b.error) : nullptr})
               ? 0
               : -1;
  } catch (...) {
    return -1;
  }
}

void xrpd_budget_close(xrpd_budget* budget) {
  delete budget;
}

int xrpd_save_snapshot(const char* dir, char** error) {
  try {
    std::string why;
    if (saveSnapshot(dir == nullptr ? "" : dir, &why)) return 0;
    say(error, why);
  } catch (...) {
    say(error, "out of memory");
  }
  return -1;
}

}  // extern "C"
