// Whether the machine is virtual, and whose, as its files show it.
#include <cstdlib>
#include <sstream>

#include "kernel/kernel.h"

namespace xrprocdetector {
namespace detail {

namespace {

bool contains(const std::string& text, const char* word) {
  return text.find(word) != std::string::npos;
}

// Whether the first flags line of a /proc/cpuinfo text is there, and
// whether it names the hypervisor flag.
void flagsLine(const std::string* cpuinfo, bool* there, bool* flag) {
  if (cpuinfo == nullptr) return;
  for (std::size_t at = 0; at < cpuinfo->size();) {
    std::size_t end = cpuinfo->find('\n', at);
    if (end == std::string::npos) end = cpuinfo->size();
    if (cpuinfo->compare(at, 5, "flags") == 0) {
      *there = true;
      *flag = contains(" " + cpuinfo->substr(at, end - at) + " ", " hypervisor ");
      return;
    }
    at = end + 1;
  }
}

// The PCI vendors of the virtual devices that hypervisors give their
// guests: VMware's, and VirtualBox's, Xen's, Hyper-V's and virtio's.
std::optional<Hypervisor> pciVendor(unsigned long vendor) {
  if (vendor == 0x15ad) return Hypervisor::kVmware;
  if (vendor == 0x80ee || vendor == 0x5853 || vendor == 0x1414 || vendor == 0x1af4)
    return Hypervisor::kOther;
  return std::nullopt;
}

// The hypervisor the PCI devices name: sys/bus/pci/devices/*/vendor, or the
// second column of proc/bus/pci/devices (vendor and device, 4 digits each).
// VMware's name wins over another's.
std::optional<Hypervisor> pciHint(SystemRoot& root) {
  std::optional<Hypervisor> found;
  auto take = [&found](unsigned long vendor) {
    const auto hint = pciVendor(vendor);
    if (hint && found != Hypervisor::kVmware) found = hint;
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
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string slot;
    std::string ids;
    words >> slot >> ids;
    take(std::strtoul(ids.substr(0, 4).c_str(), nullptr, 16));
  }
  return found;
}

}  // namespace

// VMware names itself in the DMI strings of its virtual firmware, which
// every VMware machine has, and in its PCI devices. Another hypervisor
// shows in the processor's hypervisor flag (which every hypervisor of this
// century sets), in /sys/hypervisor/type (Xen), in DMI strings that name
// it, or in its PCI devices (a guest whose flags lack the hypervisor flag
// still has them). "None" needs a flags line without the flag and no other
// hint; with neither flags nor hints nothing is known.
std::optional<Hypervisor> hypervisorState(SystemRoot& root, const std::string* cpuinfo) {
  std::string vendor;
  std::string product;
  std::string type;
  root.text("sys/class/dmi/id/sys_vendor", &vendor);
  root.text("sys/class/dmi/id/product_name", &product);
  root.text("sys/hypervisor/type", &type);
  const std::string dmi = vendor + "\n" + product;
  const std::optional<Hypervisor> pci = pciHint(root);
  if (contains(dmi, "VMware") || pci == Hypervisor::kVmware) return Hypervisor::kVmware;
  bool there = false;
  bool flag = false;
  flagsLine(cpuinfo, &there, &flag);
  static const char* const kHypervisors[] = {"QEMU",       "KVM",       "Xen",
                                             "VirtualBox", "innotek",   "Bochs",
                                             "BHYVE",      "Parallels", "Virtual Machine"};
  bool named = false;
  for (const char* name : kHypervisors)
    named = named || contains(dmi, name);
  if (flag || !type.empty() || named || pci) return Hypervisor::kOther;
  if (there) return Hypervisor::kNone;
  return std::nullopt;
}

}  // namespace detail
}  // namespace xrprocdetector
