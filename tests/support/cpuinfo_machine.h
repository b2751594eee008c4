// The calling thread's machine with another /proc/cpuinfo: a text, or a
// file read as the live one is. Everything else is asked of the machine
// that was the thread's when it was made. While it lives it is the
// thread's machine.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_CPUINFO_MACHINE_H
#define XRPROCDETECTOR_TESTS_SUPPORT_CPUINFO_MACHINE_H

#include <fcntl.h>

#include <string>

#include "machine/machine.h"

namespace testsupport {

namespace dt = xrprocdetector::detail;

class CpuinfoMachine : public dt::Machine {
 public:
  enum Kind { kFile, kText };
  CpuinfoMachine(Kind kind, std::string value)
      : kind_(kind), value_(std::move(value)), outer_(dt::machine()), scope_(*this) {}

  dt::CpuinfoStream cpuinfo() override {
    dt::CpuinfoStream s;
    if (kind_ == kText) s.text = &value_;
    if (kind_ == kFile) s.fd = ::open(value_.c_str(), O_RDONLY | O_CLOEXEC);
    return s;
  }
  using Read = dt::Read;
  using Cpus = xrprocdetector::CpuSet;
  Read file(const std::string& p, std::size_t cap, std::string* text, std::string* why) override {
    return outer_.file(p, cap, text, why);
  }
  Read entries(const std::string& p, std::vector<std::string>* names) override {
    return outer_.entries(p, names);
  }
  std::string shown(const std::string& p) const override { return outer_.shown(p); }
  dt::CpuidRegisters cpuid(std::uint32_t l, std::uint32_t s) override { return outer_.cpuid(l, s); }
  std::uint32_t backdoor() override { return outer_.backdoor(); }
  long processorCount(int name) override { return outer_.processorCount(name); }
  bool affinity(Cpus* set) override { return outer_.affinity(set); }
  bool pin(const Cpus& set) override { return outer_.pin(set); }

 private:
  Kind kind_;
  std::string value_;
  dt::Machine& outer_;
  dt::MachineScope scope_;
};

}  // namespace testsupport

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_CPUINFO_MACHINE_H
