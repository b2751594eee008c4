// The C interface: the library's entry points as C functions, each catching
// everything, so nothing is thrown across it.
#include <xrprocdetector/c_api.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "api/api.h"
#include "snapshot/snapshot.h"

struct xrpd_source {
  std::shared_ptr<const xrprocdetector::detail::SourceData> data;
  std::optional<std::string> savedAt, savedBy;  // a snapshot's, from its xrprocdetect.json
};
struct xrpd_topology {
  std::shared_ptr<const xrprocdetector::Topology> topology;  // shared with its source's
  std::string error;  // the error's message and parts, as xrpd_error_part reads them
};
struct xrpd_budget {
  std::shared_ptr<xrprocdetector::detail::BudgetState> state;
};

namespace {

using namespace xrprocdetector;

// A copy the caller frees with xrpd_free, NULs inside included; NULL when
// memory ran out.
char* copy(const std::string& text) {
  char* out = static_cast<char*>(std::malloc(text.size() + 1));
  if (out != nullptr) std::memcpy(out, text.c_str(), text.size() + 1);
  return out;
}

// The message of `e`, then its parts, each ended by a NUL: a C string of
// the message to a C host, and the parts to xrpd_error_part. "" for none.
std::string partsOf(const Error& e) {
  if (e.empty()) return "";
  return e.message() + '\0' + e.what + '\0' + e.file + '\0' + e.why;
}

// The message of `e` as the caller frees it; NULL for none.
char* copyError(const Error& e) {
  return e.empty() ? nullptr : copy(partsOf(e));
}

void say(char** error, const Error& why) {
  if (error != nullptr) *error = copyError(why);
}

// *out filled with `full` up to the size its caller knows, and its size
// set to what was filled; false when there is no struct or its size cannot
// even hold the size.
template <class T>
bool fill(T* out, T full) {
  if (out == nullptr || out->size < sizeof out->size) return false;
  full.size = std::min(out->size, sizeof(T));
  std::memcpy(static_cast<void*>(out), &full, full.size);
  return true;
}

// Whether the caller's struct has room for the member at `offset`.
template <class T>
bool holds(const T* out, std::size_t offset, std::size_t size) {
  return out->size >= offset + size;
}

const detail::SourceData& sourceOf(const xrpd_source* source) {
  return source == nullptr ? detail::liveSource() : *source->data;
}

const Error kOutOfMemory{"", "", "out of memory"};

// Runs `body`; on any exception *error says memory ran out and `failed` is
// returned.
template <class Body, class Result>
Result guarded(Body body, Result failed, char** error = nullptr) {
  try {
    return body();
  } catch (...) {
    say(error, kOutOfMemory);
    return failed;
  }
}

}  // namespace

extern "C" {

const char* xrpd_version(void) {
  return XRPROCDETECTOR_VERSION;
}

void xrpd_free(void* pointer) {
  std::free(pointer);
}

const char* xrpd_error_part(const char* message, xrpd_error_part_kind part) {
  if (message == nullptr) return nullptr;
  for (int i = 0; i <= static_cast<int>(part); ++i)
    message += std::strlen(message) + 1;
  return message;
}

int xrpd_effective_processors(void) {
  return guarded(
      [] {
        Error why;
        if (auto budget = detail::openBudget({&detail::liveSource(), [](auto) {}}, &why)) {
          Budget b;
          detail::readBudget(*budget, &b);
          return b.effectiveProcessors;
        }
        CpuSet affinity;
        if (detail::LiveMachine().affinity(&affinity) && !affinity.empty())
          return static_cast<int>(affinity.count());
        return static_cast<int>(std::max(sysconf(_SC_NPROCESSORS_ONLN), 1L));
      },
      1);
}

int xrpd_cpuset_count(const xrpd_cpuset* set) {
  return set == nullptr ? 0 : static_cast<int>(CpuSet::fromC(*set).count());
}

int xrpd_cpuset_contains(const xrpd_cpuset* set, unsigned cpu) {
  return set != nullptr && CpuSet::fromC(*set).contains(cpu);
}

char* xrpd_cpuset_to_list(const xrpd_cpuset* set) {
  return guarded([&] { return copy(set == nullptr ? "" : CpuSet::fromC(*set).toList()); },
                 static_cast<char*>(nullptr));
}

int xrpd_cpuset_from_list(const char* list, xrpd_cpuset* out) {
  return guarded(
      [&] {
        CpuSet set;
        std::string why;
        if (list == nullptr || out == nullptr || !detail::parseProcessorList(list, &set, &why))
          return -1;
        *out = set.c();
        return 0;
      },
      -1);
}

xrpd_source* xrpd_source_open(xrpd_source_kind kind, const char* path, const char* text,
                              size_t length, char** error) {
  return xrpd_source_open_with(kind, path, text, length, nullptr, error);
}

xrpd_source* xrpd_source_open_with(xrpd_source_kind kind, const char* path, const char* text,
                                   size_t length, const xrpd_source_options* options,
                                   char** error) {
  const std::uint32_t skip =
      options != nullptr && holds(options, offsetof(xrpd_source_options, skip), 4) ? options->skip
                                                                                   : 0;
  return guarded(
      [&]() -> xrpd_source* {
        Error why;
        std::shared_ptr<detail::SourceData> data;
        if (kind == XRPD_SOURCE_LIVE) {
          data = std::make_shared<detail::SourceData>();
          data->skip = skip;
          return new xrpd_source{std::move(data), {}, {}};
        }
        if (kind == XRPD_SOURCE_CPUINFO)
          data = detail::cpuinfoSource(std::string(text == nullptr ? "" : text, text ? length : 0),
                                       path);
        if (kind == XRPD_SOURCE_SNAPSHOT)
          data = detail::snapshotSource(path ? path : "", &why, skip);
        if (data != nullptr) why = data->error;
        if (data == nullptr && why.empty()) why.why = "no such kind of source";
        say(error, why);
        if (data == nullptr) return nullptr;
        std::string text, unread;  // a snapshot's metadata; empty for a text
        data->machine()->file("xrprocdetect.json", 1 << 16, &text, &unread);
        return new xrpd_source{std::move(data), detail::savedField(text, "savedAt"),
                               detail::savedField(text, "savedBy")};
      },
      static_cast<xrpd_source*>(nullptr), error);
}

xrpd_source* xrpd_source_live(void) {
  return xrpd_source_open(XRPD_SOURCE_LIVE, nullptr, nullptr, 0, nullptr);
}

xrpd_source* xrpd_source_cpuinfo_text(const char* text, size_t length) {
  return xrpd_source_open(XRPD_SOURCE_CPUINFO, nullptr, text, length, nullptr);
}

xrpd_source* xrpd_source_cpuinfo_file(const char* path, char** error) {
  char* why = nullptr;
  xrpd_source* source = xrpd_source_open(XRPD_SOURCE_CPUINFO, path ? path : "", nullptr, 0, &why);
  if (why != nullptr) xrpd_source_close(source);  // a file that cannot be read: no source here
  if (error != nullptr) *error = why;
  if (error == nullptr) xrpd_free(why);
  return why == nullptr ? source : nullptr;
}

xrpd_source* xrpd_source_snapshot(const char* dir, char** error) {
  return xrpd_source_open(XRPD_SOURCE_SNAPSHOT, dir ? dir : "", nullptr, 0, error);
}

void xrpd_source_close(xrpd_source* source) {
  delete source;
}

int xrpd_detect(xrpd_generation generation, const xrpd_source* source, xrpd_detection* out) {
  return xrpd_detect_with(generation, source, nullptr, out);
}

int xrpd_detect_with(xrpd_generation generation, const xrpd_source* source,
                     const xrpd_detect_options* options, xrpd_detection* out) {
  if (out == nullptr || generation < XRPD_GENERATION_53 || generation > XRPD_GENERATION_DEFAULT)
    return -1;
  xrpd_detect_options o{sizeof o, 0, 0, 0, 0, 0};
  if (options != nullptr) std::memcpy(&o, options, std::min(options->size, sizeof o));
  return guarded(
      [&] {
        DetectOptions opts{o.debug_level, std::nullopt, o.echo != 0, o.summary != 0};
        if (o.has_version_index != 0) opts.versionIndex = o.version_index;
        const Detection d =
            detail::detect(static_cast<Generation>(generation), sourceOf(source), opts);
        const auto verdict = d.reportedVerdict ? static_cast<std::int32_t>(*d.reportedVerdict) : -1;
        // Strings only where the caller's struct has room for them.
        const bool strings = holds(out, offsetof(xrpd_detection, error), sizeof(char*));
        const bool more = holds(out, offsetof(xrpd_detection, summary), sizeof(char*));
        const auto text = [](bool room, const std::string& s) {
          return room && !s.empty() ? copy(s) : nullptr;
        };
        return fill(out,
                    xrpd_detection{0, d.counted, d.result, d.packages, d.cores, d.logicalProcessors,
                                   static_cast<std::int32_t>(d.hyperThreading),
                                   static_cast<std::int32_t>(d.vm), verdict,
                                   static_cast<std::int32_t>(d.endedBy), text(strings, d.note),
                                   strings ? copyError(d.error) : nullptr, d.versionIndex,
                                   d.className, text(more, d.debug), text(more, d.summary)})
                   ? 0
                   : -1;
      },
      -1);
}

xrpd_topology* xrpd_topology_read(const xrpd_source* source, char** error) {
  return guarded(
      [&] {
        auto* t = new xrpd_topology{detail::topologyOf(sourceOf(source)), ""};
        t->error = partsOf(t->topology->error);
        return t;
      },
      static_cast<xrpd_topology*>(nullptr), error);
}

void xrpd_topology_close(xrpd_topology* topology) {
  delete topology;
}

int xrpd_topology_get(const xrpd_topology* topology, xrpd_topology_info* out) {
  if (topology == nullptr) return -1;
  const Topology& t = *topology->topology;
  const auto count = [](std::size_t n) { return n == 0 ? -1 : static_cast<std::int32_t>(n); };
  const auto text = [](const std::optional<std::string>& s) { return s ? s->c_str() : nullptr; };
  // clang-format off
  const xrpd_topology_info full{
      0, t.online.c(), t.offline.c(), t.usable.c(), count(t.packages.size()),
      count(t.cores.size()), static_cast<std::int32_t>(t.coreKinds.size()),
      static_cast<std::int32_t>(t.processors.size()), t.cpuQuota.value_or(0),
      t.effectiveProcessors.value_or(-1), t.smt ? static_cast<std::int32_t>(*t.smt) : -1,
      t.hypervisor ? static_cast<std::int32_t>(*t.hypervisor) : -1, text(t.hypervisorVendor),
      text(t.virtualizationType), text(t.container),
      topology->error.empty() ? nullptr : topology->error.c_str(), t.present.c(),
      t.missing.empty() ? nullptr : t.missing.c_str(), text(t.hostname), text(t.kernelRelease),
      text(t.cpuModel), text(t.cpuVendor), t.unknownSets,
      static_cast<std::int32_t>(t.numaNodes.size()), static_cast<std::int32_t>(t.caches.size())};
  // clang-format on
  return fill(out, full) ? 0 : -1;
}

int xrpd_topology_processor(const xrpd_topology* topology, size_t index, xrpd_processor* out) {
  if (topology == nullptr || index >= topology->topology->processors.size()) return -1;
  const Processor& p = topology->topology->processors[index];
  return fill(out, xrpd_processor{0, p.cpu, p.package, p.die, p.core, p.thread, p.kind, p.online,
                                  p.usable, p.numaNode, p.lastLevelCache})
             ? 0
             : -1;
}

int xrpd_topology_set(const xrpd_topology* topology, xrpd_set_list list, size_t index,
                      xrpd_cpuset* out, const char** name) {
  if (topology == nullptr || out == nullptr) return -1;
  const Topology& t = *topology->topology;
  const std::vector<CpuSet>& sets = list == XRPD_PACKAGES ? t.packages : t.cores;
  if (list == XRPD_CORE_KINDS ? index >= t.coreKinds.size() : index >= sets.size()) return -1;
  *out = (list == XRPD_CORE_KINDS ? t.coreKinds[index].processors : sets[index]).c();
  if (name != nullptr) *name = list == XRPD_CORE_KINDS ? t.coreKinds[index].kind.c_str() : nullptr;
  return 0;
}

int xrpd_topology_numa_node(const xrpd_topology* topology, size_t index, xrpd_numa_node* out) {
  if (topology == nullptr || index >= topology->topology->numaNodes.size()) return -1;
  const NumaNode& n = topology->topology->numaNodes[index];
  const auto memory = n.memoryBytes ? static_cast<std::int64_t>(*n.memoryBytes) : -1;
  return fill(out, xrpd_numa_node{0, n.node, n.processors.c(), memory, n.distances.size(),
                                  n.distances.data()})
             ? 0
             : -1;
}

int xrpd_topology_cache(const xrpd_topology* topology, size_t index, xrpd_cache* out) {
  if (topology == nullptr || index >= topology->topology->caches.size()) return -1;
  const Cache& c = topology->topology->caches[index];
  return fill(out, xrpd_cache{0, c.level, static_cast<std::int32_t>(c.type), c.sizeBytes,
                              c.lineBytes, c.ways, c.processors.c()})
             ? 0
             : -1;
}

int xrpd_places(const xrpd_topology* topology, xrpd_place_kind kind, size_t index,
                xrpd_cpuset* out) {
  if (topology == nullptr || kind < XRPD_PLACE_THREADS || kind > XRPD_PLACE_SOCKETS) return -1;
  return guarded(
      [&] {
        const std::vector<CpuSet> sets = places(*topology->topology, static_cast<PlaceKind>(kind));
        if (out != nullptr && index < sets.size()) *out = sets[index].c();
        return static_cast<int>(sets.size());
      },
      -1);
}

int xrpd_bind_thread(const xrpd_cpuset* set) {
  CpuSet cpus;
  if (set != nullptr) cpus = CpuSet::fromC(*set);
  if (cpus.empty()) return errno = EINVAL, -1;
  return detail::LiveMachine().pin(cpus) ? 0 : -1;
}

xrpd_budget* xrpd_budget_open(char** error) {
  return xrpd_budget_open_source(nullptr, error);
}

xrpd_budget* xrpd_budget_open_source(const xrpd_source* source, char** error) {
  return guarded(
      [&]() -> xrpd_budget* {
        Error why;
        std::shared_ptr<const detail::SourceData> data = source ? source->data : nullptr;
        if (data == nullptr) data = {&detail::liveSource(), [](auto) {}};
        if (auto state = detail::openBudget(std::move(data), &why))
          return new xrpd_budget{std::move(state)};
        say(error, why);
        return nullptr;
      },
      static_cast<xrpd_budget*>(nullptr), error);
}

int xrpd_budget_read(xrpd_budget* budget, xrpd_budget_reading* out) {
  if (budget == nullptr || out == nullptr) return -1;
  return guarded(
      [&] {
        Budget b;
        detail::readBudget(*budget->state, &b);
        const bool error = holds(out, offsetof(xrpd_budget_reading, error), sizeof(char*));
        return fill(out, xrpd_budget_reading{0, static_cast<int>(b.usable.count()),
                                             b.cpuQuota.value_or(0), b.effectiveProcessors,
                                             b.usable.c(), error ? copyError(b.error) : nullptr})
                   ? 0
                   : -1;
      },
      -1);
}

void xrpd_budget_close(xrpd_budget* budget) {
  delete budget;
}

int xrpd_save_snapshot(const char* dir, char** error) {
  return guarded(
      [&] {
        Error why;
        if (detail::save(dir == nullptr ? "" : dir, &why)) return 0;
        say(error, why);
        return -1;
      },
      -1, error);
}

int xrpd_source_get(const xrpd_source* source, xrpd_source_info* out) {
  const auto text = [](const std::optional<std::string>& s) { return s ? s->c_str() : nullptr; };
  if (source == nullptr) return fill(out, xrpd_source_info{}) ? 0 : -1;
  return fill(out, xrpd_source_info{0, text(source->savedAt), text(source->savedBy)}) ? 0 : -1;
}

}  // extern "C"
