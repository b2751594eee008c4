#include "synthetic_cpuinfo.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

namespace bench {

namespace {

// A flags line of the length current server processors print (about 1 KB).
const char kFlags[] =
    "fpu vme de pse tsc msr pae mce cx8 apic sep mtrr pge mca cmov pat pse36 clflush dts acpi "
    "mmx fxsr sse sse2 ss ht tm pbe syscall nx pdpe1gb rdtscp lm constant_tsc art arch_perfmon "
    "pebs bts rep_good nopl xtopology nonstop_tsc cpuid aperfmperf pni pclmulqdq dtes64 monitor "
    "ds_cpl vmx smx est tm2 ssse3 sdbg fma cx16 xtpr pdcm pcid dca sse4_1 sse4_2 x2apic movbe "
    "popcnt tsc_deadline_timer aes xsave avx f16c rdrand lahf_lm abm 3dnowprefetch cpuid_fault "
    "epb cat_l3 cat_l2 cdp_l3 invpcid_single intel_ppin cdp_l2 ssbd mba ibrs ibpb stibp "
    "ibrs_enhanced tpr_shadow flexpriority ept vpid ept_ad fsgsbase tsc_adjust bmi1 avx2 smep "
    "bmi2 erms invpcid cqm rdt_a avx512f avx512dq rdseed adx smap avx512ifma clflushopt clwb "
    "intel_pt avx512cd sha_ni avx512bw avx512vl xsaveopt xsavec xgetbv1 xsaves cqm_llc "
    "cqm_occup_llc cqm_mbm_total cqm_mbm_local split_lock_detect wbnoinvd dtherm ida arat pln "
    "pts hwp hwp_act_window hwp_epp hwp_pkg_req vnmi avx512vbmi umip pku ospke waitpkg "
    "avx512_vbmi2 gfni vaes vpclmulqdq avx512_vnni avx512_bitalg tme avx512_vpopcntdq la57 "
    "rdpid bus_lock_detect cldemote movdiri movdir64b enqcmd fsrm md_clear serialize tsxldtrk "
    "pconfig arch_lbr ibt amx_bf16 avx512_fp16 amx_tile amx_int8 flush_l1d arch_capabilities";

void line(std::string& out, const char* key, const std::string& value) {
  out += key;
  out += "\t: ";
  out += value;
  out += '\n';
}

bool writeFile(const std::string& path, const std::string& text) {
  FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

bool makeDirs(const std::string& path) {
  for (std::size_t i = 1; i <= path.size(); ++i) {
    if (i == path.size() || path[i] == '/') {
      if (::mkdir(path.substr(0, i).c_str(), 0755) != 0 && errno != EEXIST) return false;
    }
  }
  return true;
}

// A processor list as sysfs prints it: "0-3,8-11".
std::string cpuList(const std::vector<bool>& bits) {
  std::string out;
  for (std::size_t i = 0; i < bits.size(); ++i) {
    if (!bits[i] || (i > 0 && bits[i - 1])) continue;
    std::size_t last = i;
    while (last + 1 < bits.size() && bits[last + 1])
      ++last;
    out += (out.empty() ? "" : ",") + std::to_string(i);
    if (last > i) out += "-" + std::to_string(last);
  }
  return out;
}

// The processors of `m` for which `in` holds.
template <class In>
std::vector<bool> cpusWhere(const Machine& m, In in) {
  std::vector<bool> bits(static_cast<std::size_t>(m.logical));
  for (int cpu = 0; cpu < m.logical; ++cpu)
    bits[static_cast<std::size_t>(cpu)] = in(cpu);
  return bits;
}

// Processor `cpu`'s cache/indexN folders: L1 data and instruction and L2
// shared by the two threads of a core, L3 by the whole package.
bool writeCaches(const Machine& m, int cpu, const std::string& dir) {
  struct Kind {
    const char* level;
    const char* type;
    const char* size;
    const char* ways;
    long sets;
  };
  const Kind kinds[] = {{"1", "Data", "48K", "12", 64},
                        {"1", "Instruction", "32K", "8", 64},
                        {"2", "Unified", "2048K", "16", 2048},
                        {"3", "Unified", "107520K", "15", 114688}};
  const std::vector<bool> core =
      cpusWhere(m, [&](int o) { return o == cpu || o == m.siblingOf(cpu); });
  const std::vector<bool> package =
      cpusWhere(m, [&](int o) { return m.packageOf(o) == m.packageOf(cpu); });
  for (int i = 0; i < 4; ++i) {
    const Kind& k = kinds[i];
    const std::string index = dir + "/cache/index" + std::to_string(i) + "/";
    const std::vector<bool>& shared = i == 3 ? package : core;
    const int id = i == 3 ? m.packageOf(cpu) : m.packageOf(cpu) * m.coresPerPackage + m.coreOf(cpu);
    const std::pair<const char*, std::string> files[] = {{"level", k.level},
                                                         {"type", k.type},
                                                         {"size", k.size},
                                                         {"coherency_line_size", "64"},
                                                         {"ways_of_associativity", k.ways},
                                                         {"number_of_sets", std::to_string(k.sets)},
                                                         {"physical_line_partition", "1"},
                                                         {"id", std::to_string(id)},
                                                         {"shared_cpu_map", cpuMask(shared)},
                                                         {"shared_cpu_list", cpuList(shared)}};
    if (!makeDirs(index)) return false;
    for (const auto& [name, text] : files) {
      if (!writeFile(index + name, text + "\n")) return false;
    }
  }
  return true;
}

// sys/devices/system/node: each node's processors, memory (16 GiB) and
// distances (10 itself, 12 the other node of its package, 21 another
// package's).
bool writeNodes(const Machine& m, const std::string& root) {
  const std::string dir = root + "/sys/devices/system/node";
  const int nodes = m.packages * m.nodesPerPackage;
  const std::string range = "0-" + std::to_string(nodes - 1) + "\n";
  if (!makeDirs(dir) || !writeFile(dir + "/online", range) || !writeFile(dir + "/possible", range))
    return false;
  for (int n = 0; n < nodes; ++n) {
    const std::vector<bool> cpus = cpusWhere(m, [&](int cpu) { return m.nodeOf(cpu) == n; });
    std::string distance;
    for (int o = 0; o < nodes; ++o) {
      const bool samePackage = o / m.nodesPerPackage == n / m.nodesPerPackage;
      distance += (o > 0 ? " " : "") + std::string(o == n ? "10" : samePackage ? "12" : "21");
    }
    const std::string node = dir + "/node" + std::to_string(n) + "/";
    const std::string meminfo = "Node " + std::to_string(n) + " MemTotal:       16777216 kB\n";
    if (!makeDirs(node) || !writeFile(node + "cpumap", cpuMask(cpus) + "\n") ||
        !writeFile(node + "cpulist", cpuList(cpus) + "\n") ||
        !writeFile(node + "meminfo", meminfo) || !writeFile(node + "distance", distance + "\n"))
      return false;
  }
  return true;
}

}  // namespace

Machine::Machine(int n, int p) : logical(n), packages(1) {
  while (p == 0 && 16 * packages * packages < logical)
    packages *= 2;
  if (p > 0) packages = p;
  coresPerPackage = logical / 2 / packages;
  nodesPerPackage = coresPerPackage % 2 == 0 ? 2 : 1;
}

std::string cpuinfoText(const Machine& m) {
  std::string out;
  out.reserve(static_cast<std::size_t>(m.logical) * 1700);
  for (int cpu = 0; cpu < m.logical; ++cpu) {
    const int package = m.packageOf(cpu);
    const int core = m.coreOf(cpu);
    const int apic = package * 128 + core * 2 + (cpu >= m.logical / 2 ? 1 : 0);
    if (cpu > 0) out += '\n';
    line(out, "processor", std::to_string(cpu));
    line(out, "vendor_id", "GenuineIntel");
    line(out, "cpu family", "6");
    line(out, "model\t", "143");
    line(out, "model name", "Example Server Processor 8490 @ 1.90GHz");
    line(out, "stepping", "8");
    line(out, "microcode", "0x2b0004b1");
    line(out, "cpu MHz\t", "1900.000");
    line(out, "cache size", "107520 KB");
    line(out, "physical id", std::to_string(package));
    line(out, "siblings", std::to_string(2 * m.coresPerPackage));
    line(out, "core id\t", std::to_string(core));
    line(out, "cpu cores", std::to_string(m.coresPerPackage));
    line(out, "apicid\t", std::to_string(apic));
    line(out, "initial apicid", std::to_string(apic));
    line(out, "fpu\t", "yes");
    line(out, "fpu_exception", "yes");
    line(out, "cpuid level", "32");
    line(out, "wp\t", "yes");
    line(out, "flags\t", kFlags);
    line(out, "vmx flags", "vnmi preemption_timer posted_intr invvpid ept_x_only ept_ad ept_1gb");
    line(out, "bugs\t", "spectre_v1 spectre_v2 mmio_stale_data swapgs eibrs_pbrsb");
    line(out, "bogomips", "3800.00");
    line(out, "clflush size", "64");
    line(out, "cache_alignment", "64");
    line(out, "address sizes", "52 bits physical, 57 bits virtual");
    out += "power management:\n";
  }
  return out;
}

std::string cpuMask(const std::vector<bool>& bits) {
  const std::size_t words = bits.empty() ? 1 : (bits.size() + 31) / 32;
  std::string out;
  for (std::size_t w = words; w-- > 0;) {
    unsigned value = 0;
    for (std::size_t b = 0; b < 32; ++b) {
      const std::size_t i = w * 32 + b;
      if (i < bits.size() && bits[i]) value |= 1u << b;
    }
    char word[9];
    std::snprintf(word, sizeof word, "%08x", value);
    out += word;
    if (w > 0) out += ',';
  }
  return out;
}

bool writeMachineTree(const Machine& m, const std::string& root) {
  const std::string cpuDir = root + "/sys/devices/system/cpu";
  if (!makeDirs(root + "/proc") || !makeDirs(cpuDir)) return false;
  if (!writeFile(root + "/proc/cpuinfo", cpuinfoText(m))) return false;
  const std::string range = "0-" + std::to_string(m.logical - 1) + "\n";
  for (const char* name : {"possible", "present", "online"}) {
    if (!writeFile(cpuDir + "/" + name, range)) return false;
  }
  for (int cpu = 0; cpu < m.logical; ++cpu) {
    const std::string dir = cpuDir + "/cpu" + std::to_string(cpu);
    if (!makeDirs(dir + "/topology")) return false;
    std::vector<bool> threads(static_cast<std::size_t>(m.logical));
    std::vector<bool> package(static_cast<std::size_t>(m.logical));
    for (int other = 0; other < m.logical; ++other) {
      threads[static_cast<std::size_t>(other)] = other == cpu || other == m.siblingOf(cpu);
      package[static_cast<std::size_t>(other)] = m.packageOf(other) == m.packageOf(cpu);
    }
    const std::string topo = dir + "/topology/";
    if (!writeFile(dir + "/online", "1\n") ||
        !writeFile(topo + "thread_siblings", cpuMask(threads) + "\n") ||
        !writeFile(topo + "core_siblings", cpuMask(package) + "\n") ||
        !writeFile(topo + "physical_package_id", std::to_string(m.packageOf(cpu)) + "\n") ||
        !writeFile(topo + "core_id", std::to_string(m.coreOf(cpu)) + "\n") ||
        !writeCaches(m, cpu, dir))
      return false;
  }
  return writeNodes(m, root);
}

}  // namespace bench
