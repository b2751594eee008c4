#include "linux/linux.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <sstream>

namespace xrprocdetector {
namespace detail {

namespace {

struct Mount {
  std::string root;     // the part of the hierarchy mounted there
  std::string point;    // where, relative to the system root
  std::string type;     // "cgroup", "cgroup2" or "cpuset"
  std::string options;  // ",rw,cpu,cpuacct," (the super options, set apart by commas)
};

// Undoes the octal escapes (\040 for a blank) of a mount table's fields.
std::string unescape(const std::string& field) {
  std::string out;
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && field.size() - i >= 4) {
      out += static_cast<char>(std::strtol(field.substr(i + 1, 3).c_str(), nullptr, 8));
      i += 3;
    } else {
      out += field[i];
    }
  }
  return out;
}

std::string relative(const std::string& point) {
  std::string p = unescape(point);
  while (!p.empty() && p.front() == '/')
    p.erase(0, 1);
  return p;
}

// The cgroup mounts of proc/self/mountinfo, or of proc/mounts (which does
// not say a mount's root: the whole hierarchy is taken to be mounted).
std::vector<Mount> cgroupMounts(SystemRoot& root) {
  std::vector<Mount> mounts;
  std::string text;
  const bool info = root.text("proc/self/mountinfo", &text) == Read::kOk;
  if (!info) root.text("proc/mounts", &text);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::vector<std::string> w{std::istream_iterator<std::string>(words), {}};
    Mount m;
    if (info) {
      const auto dash = std::find(w.begin(), w.end(), "-");
      if (w.size() < 5 || w.end() - dash < 4) continue;
      m = {unescape(w[3]), relative(w[4]), dash[1], "," + dash[3] + ","};
    } else {
      if (w.size() < 4) continue;
      m = {"/", relative(w[1]), w[2], "," + w[3] + ","};
    }
    if (m.type == "cgroup" || m.type == "cgroup2" || m.type == "cpuset") mounts.push_back(m);
  }
  return mounts;
}

// The folders from the process's cgroup up to the mount's top, relative to
// the system root; none when the cgroup lies outside what is mounted.
std::vector<std::string> chain(const Mount& m, std::string path) {
  const std::string top = m.root == "/" ? "" : m.root;
  if (path.compare(0, top.size(), top) != 0) return {};
  path.erase(0, top.size());
  // Below the mount's root only as a path of its own: "/jobless" is not
  // below "/job", and a path that is not absolute is below nothing.
  if (!path.empty() && path.front() != '/') return {};
  std::vector<std::string> dirs;
  for (;;) {
    while (!path.empty() && path.back() == '/')
      path.pop_back();
    dirs.push_back(m.point + path);
    if (path.empty()) return dirs;
    path.erase(path.rfind('/'));
  }
}

// The cgroup path of each hierarchy from proc/self/cgroup: "" for v2, each
// controller's name for v1; and "cpuset fs" from proc/self/cpuset, the
// path of the process's cpuset in whichever hierarchy holds cpusets (what
// older recordings keep instead of proc/self/cgroup).
std::vector<std::pair<std::string, std::string>> cgroupPaths(SystemRoot& root) {
  std::vector<std::pair<std::string, std::string>> paths;
  std::string text;
  root.text("proc/self/cgroup", &text);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    std::istringstream names(line.substr(first + 1, second - first - 1));
    const std::string path = line.substr(second + 1);
    if (second == first + 1) paths.emplace_back("", path);
    for (std::string name; std::getline(names, name, ',');)
      paths.emplace_back(name, path);
  }
  if (root.text("proc/self/cpuset", &text) == Read::kOk) paths.emplace_back("cpuset fs", text);
  return paths;
}

void tighten(std::optional<double>& quota, double value) {
  if (!quota || value < *quota) quota = value;
}

// What the kernel accepts for a CPU bandwidth limit, in microseconds: a
// period of 1 ms to 1 s, and a quota of at least 1 ms and at most 2^44 - 1
// (the kernel's MAX_BW); anything else in these files is not a limit.
constexpr long kMinPeriod = 1000;
constexpr long kMaxPeriod = 1000000;
constexpr long kMaxQuota = (1L << 44) - 1;

// The quota and period of one folder, in microseconds: cpu.max ("max
// PERIOD" or "QUOTA PERIOD"), or cpu.cfs_quota_us (-1: none) over
// cpu.cfs_period_us. False where there is no limit. Anything the kernel
// could not hold is a failure naming the file, never a limit.
bool readQuota(SystemRoot& root, const std::string& dir, bool v2, long* quota, long* period) {
  const std::string file = dir + (v2 ? "/cpu.max" : "/cpu.cfs_quota_us");
  const std::string most = std::to_string(kMaxQuota);
  std::string text;
  if (v2) {
    if (root.text(file, &text) != Read::kOk) return false;
    const std::size_t blank = text.find(' ');
    const std::string max = text.substr(0, blank);
    if (blank != std::string::npos &&
        wholeNumber(text.substr(blank + 1), kMinPeriod, kMaxPeriod, period) &&
        (max == "max" || wholeNumber(max, kMinPeriod, kMaxQuota, quota)))
      return max != "max";
    root.fail(file,
              "line 1: not \"max PERIOD\" or \"QUOTA PERIOD\" with a period from 1000 to "
              "1000000 and a quota from 1000 to " +
                  most);
    return false;
  }
  if (root.number(file, quota, -1, kMaxQuota) != Read::kOk || *quota == -1) return false;
  if (*quota < kMinPeriod) {
    root.fail(file, "line 1: not -1 or a whole number from 1000 to " + most);
    return false;
  }
  return root.number(dir + "/cpu.cfs_period_us", period, kMinPeriod, kMaxPeriod) == Read::kOk;
}

// The cpuset of the nearest folder that has one of `files`.
void readCpuset(SystemRoot& root, const std::vector<std::string>& dirs,
                std::initializer_list<const char*> files, CgroupLimits& limits) {
  for (const std::string& dir : dirs) {
    for (const char* file : files) {
      CpuSet set;
      if (root.list(dir + "/" + file, &set) != Read::kOk) continue;
      limits.cpuset = limits.cpuset ? *limits.cpuset & set : set;
      return;
    }
  }
}

}  // namespace

CgroupLimits readCgroupLimits(SystemRoot& root) {
  CgroupLimits limits;
  const std::vector<Mount> mounts = cgroupMounts(root);
  if (mounts.empty()) return limits;  // no control group file system to look in
  for (const auto& [controller, path] : cgroupPaths(root)) {
    const bool named = controller == "cpuset fs";
    for (const Mount& m : mounts) {
      const bool v2 = (controller.empty() || named) && m.type == "cgroup2";
      const bool old = named && m.type == "cpuset";
      const bool v1 = m.type == "cgroup" && m.options.find("," + (named ? "cpuset" : controller) +
                                                           ",") != std::string::npos;
      if (!v2 && !old && !v1) continue;
      const std::vector<std::string> dirs = chain(m, path);
      if (!named && (v2 || controller == "cpu")) {
        long quota = 0;
        long period = 0;
        for (const std::string& dir : dirs) {
          if (readQuota(root, dir, v2, &quota, &period))
            tighten(limits.quota, static_cast<double>(quota) / static_cast<double>(period));
        }
      }
      const bool bare = old || m.options.find(",noprefix,") != std::string::npos;
      const bool cpusets = named || controller == "cpuset";
      if (v2)
        readCpuset(root, dirs, {"cpuset.cpus.effective"}, limits);
      else if (cpusets && bare)
        readCpuset(root, dirs, {"effective_cpus", "cpus", "cpuset.cpus"}, limits);
      else if (cpusets)
        readCpuset(root, dirs, {"cpuset.effective_cpus", "cpuset.cpus"}, limits);
    }
  }
  return limits;
}

}  // namespace detail
}  // namespace xrprocdetector
