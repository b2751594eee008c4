// The typed reader of a machine's files, and the one shape of a failure.
#include <algorithm>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

bool fail(Error* error, std::string file, std::string why, std::string what) {
  *error = Error{std::move(what), std::move(file), std::move(why)};
  return false;
}

std::string SystemRoot::shown(const std::string& path) const {
  return machine_.shown(base_ + path);
}

Read SystemRoot::entries(const std::string& path, std::vector<std::string>* names) {
  return machine_.entries(base_ + path, names);
}

bool SystemRoot::affinity(CpuSet* set) {
  try {
    return machine_.affinity(set);
  } catch (const Missing&) {
    return false;  // a tree recorded without one
  }
}

std::optional<CpuidRegisters> SystemRoot::cpuid(std::uint32_t leaf, std::uint32_t subleaf) {
  try {
    return machine_.cpuid(leaf, subleaf);
  } catch (const Missing&) {
    return std::nullopt;  // a saved machine without the dumps to tell
  }
}

std::optional<CpuidRegisters> SystemRoot::cpuidOn(unsigned cpu, std::uint32_t leaf,
                                                  std::uint32_t subleaf) {
  CpuSet before;
  if (!affinity(&before) || !machine_.pin(CpuSet({cpu}))) return std::nullopt;
  const std::optional<CpuidRegisters> r = cpuid(leaf, subleaf);
  machine_.pin(before);
  return r;
}

Read SystemRoot::fail(const std::string& path, const std::string& why) {
  if (error_.empty()) error_ = Error{"", shown(path), why};
  return Read::kFailed;
}

std::vector<unsigned> SystemRoot::processorFolders(const std::string& path) {
  std::vector<std::string> names;
  std::vector<unsigned> numbers;
  machine_.entries(base_ + path, &names);
  for (const std::string& name : names) {
    unsigned n = 0;
    std::string problem;
    if (!numberedName(name, "cpu", kKernelMaxProcessors, &n, &problem)) continue;
    if (!problem.empty())
      fail((path.empty() ? "" : path + "/") + name, problem + ", the kernel's limit");
    if (problem.empty()) numbers.push_back(n);
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

Read SystemRoot::text(const std::string& path, std::string* out) {
  std::string why;
  const Read r = machine_.file(base_ + path, capOf(base_ + path), out, &why);
  if (r == Read::kFailed) return fail(path, why);
  out->resize(trimmed(*out).size());
  return r;
}

Read SystemRoot::number(const std::string& path, long* value, long min, long max) {
  std::string t;
  const Read r = text(path, &t);
  if (r != Read::kOk || wholeNumber(t, min, max, value)) return r;
  const std::string range = min == LONG_MIN
                                ? ""
                                : " from " + std::to_string(min) +
                                      (max == LONG_MAX ? " up" : " to " + std::to_string(max));
  return fail(path, "line 1: not a whole number" + range);
}

Read SystemRoot::list(const std::string& path, CpuSet* out, bool mask) {
  std::string t;
  std::string why;
  const Read r = text(path, &t);
  if (r == Read::kOk && !(mask ? parseCpuMask(t, out, &why) : parseProcessorList(t, out, &why)))
    return fail(path, why);
  return r;
}

}  // namespace detail
}  // namespace xrprocdetector
