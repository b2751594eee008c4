#include "sysroot/cgroup.h"

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
std::vector<Mount> cgroupMounts(SystemRoot& root, CgroupLimits& limits) {
  std::vector<Mount> mounts;
  std::string text;
  limits.files.push_back("proc/self/mountinfo");
  const bool info = root.text("proc/self/mountinfo", &text) == Read::kOk;
  if (!info) {
    limits.files.push_back("proc/mounts");
    root.text("proc/mounts", &text);
  }
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
// controller's name for v1; and "cpuset fs" from proc/self/cpuset.
std::vector<std::pair<std::string, std::string>> cgroupPaths(SystemRoot& root,
                                                             CgroupLimits& limits) {
  std::vector<std::pair<std::string, std::string>> paths;
  std::string text;
  limits.files.push_back("proc/self/cgroup");
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
  limits.files.push_back("proc/self/cpuset");
  if (root.text("proc/self/cpuset", &text) == Read::kOk) paths.emplace_back("cpuset fs", text);
  return paths;
}

void tighten(std::optional<double>& quota, double value) {
  if (!quota || value < *quota) quota = value;
}

// The quota of one folder: cpu.max, or cpu.cfs_quota_us over its period.
void readQuota(SystemRoot& root, const std::string& dir, bool v2, CgroupLimits& limits) {
  std::string text;
  long quota = -1;
  long period = 0;
  if (v2) {
    limits.files.push_back(dir + "/cpu.max");
    if (root.text(dir + "/cpu.max", &text) != Read::kOk) return;
    std::istringstream words(text);
    std::string max;
    words >> max >> period;
    if (max != "max" && period > 0) tighten(limits.quota, std::atof(max.c_str()) / period);
    return;
  }
  limits.files.push_back(dir + "/cpu.cfs_quota_us");
  limits.files.push_back(dir + "/cpu.cfs_period_us");
  if (root.number(dir + "/cpu.cfs_quota_us", &quota) == Read::kOk && quota > 0 &&
      root.number(dir + "/cpu.cfs_period_us", &period) == Read::kOk && period > 0)
    tighten(limits.quota, static_cast<double>(quota) / static_cast<double>(period));
}

// The cpuset of the nearest folder that has one of `files`.
void readCpuset(SystemRoot& root, const std::vector<std::string>& dirs,
                std::initializer_list<const char*> files, unsigned limit, CgroupLimits& limits) {
  for (const std::string& dir : dirs) {
    for (const char* file : files) {
      std::vector<unsigned> cpus;
      limits.files.push_back(dir + "/" + file);
      if (root.list(dir + "/" + file, limit, &cpus) != Read::kOk) continue;
      if (limits.cpuset) {
        std::vector<unsigned> both;
        std::set_intersection(limits.cpuset->begin(), limits.cpuset->end(), cpus.begin(),
                              cpus.end(), std::back_inserter(both));
        cpus = std::move(both);
      }
      limits.cpuset = std::move(cpus);
      return;
    }
  }
}

}  // namespace

CgroupLimits readCgroupLimits(SystemRoot& root, unsigned limit) {
  CgroupLimits limits;
  const std::vector<Mount> mounts = cgroupMounts(root, limits);
  if (mounts.empty()) return limits;  // no control group file system to look in
  for (const auto& [controller, path] : cgroupPaths(root, limits)) {
    for (const Mount& m : mounts) {
      const bool v2 = controller.empty() && m.type == "cgroup2";
      const bool old = controller == "cpuset fs" && m.type == "cpuset";
      const bool v1 =
          m.type == "cgroup" && m.options.find("," + controller + ",") != std::string::npos;
      if (!v2 && !old && !v1) continue;
      const std::vector<std::string> dirs = chain(m, path);
      if (v2 || controller == "cpu") {
        for (const std::string& dir : dirs)
          readQuota(root, dir, v2, limits);
      }
      if (v2) readCpuset(root, dirs, {"cpuset.cpus.effective"}, limit, limits);
      if (v1 && controller == "cpuset")
        readCpuset(root, dirs, {"cpuset.effective_cpus", "cpuset.cpus"}, limit, limits);
      if (old) readCpuset(root, dirs, {"cpus", "cpuset.cpus"}, limit, limits);
    }
  }
  return limits;
}

}  // namespace detail
}  // namespace xrprocdetector
