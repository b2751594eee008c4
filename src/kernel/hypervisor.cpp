// Whether the machine is virtual, and whose; and whether the process runs
// in a container, and which.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

bool contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

// The name paired with the first key of `table` that `matches`; null when none.
template <class Table, class Match>
const char* lookup(const Table& table, Match matches) {
  for (const auto& [key, name] : table)
    if (matches(key)) return name;
  return nullptr;
}

// The vendors of the virtual PCI devices that hypervisors give their
// guests, by PCI vendor id; virtio's (0x1af4) names no one hypervisor.
const char* pciVendor(unsigned long vendor) {
  static const std::pair<unsigned long, const char*> kVendors[] = {
      {0x15ad, "VMware"}, {0x80ee, "Oracle"}, {0x5853, "Xen"}, {0x1414, "Microsoft"}, {0x1af4, ""}};
  return lookup(kVendors, [vendor](unsigned long id) { return id == vendor; });
}

// The hypervisor the PCI devices name: sys/bus/pci/devices/*/vendor, or the
// second column of proc/bus/pci/devices (vendor and device, 4 digits each).
// VMware's name wins over another's; "" a hypervisor's device of no one
// vendor; null none.
const char* pciHint(SystemRoot& root) {
  const char* found = nullptr;
  auto take = [&found](unsigned long vendor) {
    const char* hint = pciVendor(vendor);
    if (hint != nullptr && (found == nullptr || *found == '\0')) found = hint;
    if (hint != nullptr && std::strcmp(hint, "VMware") == 0) found = hint;
  };
  std::vector<std::string> devices;
  if (root.entries("sys/bus/pci/devices", &devices) == Read::kOk) {
    for (const std::string& device : devices) {
      std::string vendor;
      if (root.text("sys/bus/pci/devices/" + device + "/vendor", &vendor) == Read::kOk)
        take(std::strtoul(vendor.c_str(), nullptr, 16));
    }
    return found;
  }
  std::string table;
  root.text("proc/bus/pci/devices", &table);
  std::istringstream lines(table);
  // Two columns of each line: the slot, then vendor and device.
  for (std::string slot, ids; lines >> slot >> ids; lines.ignore(kTableCap, '\n'))
    take(std::strtoul(ids.substr(0, 4).c_str(), nullptr, 16));
  return found;
}

// The hypervisor's own name for itself, CPUID leaf 0x40000000's EBX, ECX,
// EDX, where leaf 1 says there is a hypervisor: live, or in a snapshot's
// dumps. Null when nothing tells.
const char* cpuidVendor(SystemRoot& root) {
  static const char* const kSignatures[][2] = {
      {"KVMKVMKVM", "KVM"},          {"Microsoft Hv", "Microsoft"}, {"VMwareVMware", "VMware"},
      {"XenVMMXenVMM", "Xen"},       {"VBoxVBoxVBox", "Oracle"},    {"TCGTCGTCGTCG", "QEMU"},
      {" lrpepyh  vr", "Parallels"}, {"bhyve bhyve ", "bhyve"},     {"ACRNACRNACRN", "ACRN"}};
  const std::optional<CpuidRegisters> leaf1 = root.cpuid(1, 0);
  const std::optional<CpuidRegisters> r = root.cpuid(0x40000000, 0);
  if (!leaf1 || (leaf1->ecx >> 31) == 0 || !r) return nullptr;
  const std::uint32_t words[3] = {r->ebx, r->ecx, r->edx};
  char name[13] = {};
  std::memcpy(name, words, sizeof words);
  return lookup(kSignatures,
                [&name](const char* signature) { return std::strcmp(name, signature) == 0; });
}

// The vendor the DMI strings name, as lscpu reads them.
const char* dmiVendor(const std::string& dmi) {
  // clang-format off
  static const char* const kNames[][2] = {
      {"VMware", "VMware"}, {"innotek GmbH", "Oracle"}, {"VirtualBox", "Oracle"},
      {"Virtual Machine", "Microsoft"}, {"Parallels", "Parallels"}, {"BHYVE", "bhyve"},
      {"Xen", "Xen"}, {"KVM", "KVM"}, {"QEMU", "QEMU"}, {"Bochs", ""}};
  // clang-format on
  return lookup(kNames, [&dmi](const char* name) { return contains(dmi, name); });
}

// VMware names itself in the DMI strings of its virtual firmware, which
// every VMware machine has, and in its PCI devices. Another hypervisor
// shows in the processor's hypervisor flag (which every hypervisor of this
// century sets), in /sys/hypervisor/type or /proc/xen (Xen), in DMI strings
// that name it, or in its PCI devices (a guest whose flags lack the
// hypervisor flag still has them). "None" needs a flags line without the
// flag and no other hint; with neither flags nor hints nothing is known.
void hypervisor(SystemRoot& root, const std::string& cpuinfo, Topology& t) {
  std::string vendor, product, type;
  std::vector<std::string> xen;
  root.text("sys/class/dmi/id/sys_vendor", &vendor);
  root.text("sys/class/dmi/id/product_name", &product);
  root.text("sys/hypervisor/type", &type);
  const bool xenfs = root.entries("proc/xen", &xen) == Read::kOk;
  const char* dmi = dmiVendor(vendor + "\n" + product);
  const char* pci = pciHint(root);
  std::string flags = firstValue(cpuinfo, "flags");  // between blanks, or "" with none
  if (!flags.empty()) flags = " " + flags + " ";
  const bool flag = contains(flags, " hypervisor ");
  const bool isXen = xenfs || type == "xen";
  const char* named = cpuidVendor(root);
  if (named == nullptr) named = isXen ? "Xen" : dmi != nullptr ? dmi : pci;
  if (named != nullptr && *named == '\0') named = nullptr;
  const bool vmware = named != nullptr && std::strcmp(named, "VMware") == 0;
  if (vmware || flag || isXen || !type.empty() || dmi || pci) {
    t.hypervisor = vmware ? Hypervisor::kVmware : Hypervisor::kOther;
    if (named != nullptr) t.hypervisorVendor = named;
    // A Xen guest without the hypervisor flag runs paravirtualized.
    if (named != nullptr) t.virtualizationType = isXen && !flag ? "para" : "full";
  } else if (!flags.empty()) {
    t.hypervisor = Hypervisor::kNone;
    t.hypervisorVendor = "none";
  }
}

// The container, as systemd-detect-virt names it: systemd's record of it,
// process 1's container= environment, the files container managers leave,
// then the control group's path. "none" where process 1's environment was
// read and nothing else tells.
std::optional<std::string> container(SystemRoot& root) {
  Machine& m = root.machine();
  std::string text, why;
  // Read without a failure being recorded: process 1's environment is
  // root's alone.
  if (m.file("run/systemd/container", kSmallFileCap, &text, &why) == Read::kOk &&
      text.find_first_not_of(" \n") != std::string::npos)
    return text.substr(0, text.find_first_of(" \n"));
  const Read environ = m.file("proc/1/environ", kTableCap, &text, &why);
  for (std::size_t at = 0; environ == Read::kOk && at < text.size();) {
    if (text.compare(at, 10, "container=") == 0) return std::string(text.c_str() + at + 10);
    at = std::min(text.find('\0', at), text.size()) + 1;
  }
  if (m.file("run/.containerenv", kSmallFileCap, &text, &why) == Read::kOk) return "podman";
  if (m.file(".dockerenv", kSmallFileCap, &text, &why) == Read::kOk) return "docker";
  static const char* const kPaths[][2] = {{"kubepods", "kubernetes"},
                                          {"/docker", "docker"},
                                          {"docker-", "docker"},
                                          {"libpod", "podman"},
                                          {"/lxc", "lxc"},
                                          {"machine.slice/systemd-nspawn", "systemd-nspawn"}};
  const bool cgroup = m.file("proc/self/cgroup", kTableCap, &text, &why) == Read::kOk;
  const auto inPath = [&text](const char* part) { return contains(text, part); };
  if (const char* name = cgroup ? lookup(kPaths, inPath) : nullptr) return std::string(name);
  if (environ == Read::kOk) return std::string("none");
  return std::nullopt;
}

}  // namespace

std::string firstValue(const std::string& cpuinfo, const char* key) {
  const std::size_t length = std::strlen(key);
  for (std::size_t at = 0; at < cpuinfo.size();) {
    const std::size_t end = std::min(cpuinfo.find('\n', at), cpuinfo.size());
    const std::size_t colon =
        cpuinfo.compare(at, length, key) == 0 && cpuinfo.find_first_not_of(" \t", at + length) < end
            ? cpuinfo.find_first_not_of(" \t", at + length)
            : end;
    if (colon < end && cpuinfo[colon] == ':') {
      const std::size_t from = cpuinfo.find_first_not_of(" \t", colon + 1);
      const std::size_t last = cpuinfo.find_last_not_of(" \t", end - 1);
      return from < end ? cpuinfo.substr(from, last + 1 - from) : "";
    }
    at = end + 1;
  }
  return "";
}

void readVirtualization(SystemRoot& root, const std::string& cpuinfo, Topology& t) {
  hypervisor(root, cpuinfo, t);
  t.container = container(root);
}

}  // namespace detail
}  // namespace xrprocdetector
