#include "kernel/kernel.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <map>
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
  return p.erase(0, p.find_first_not_of('/'));
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
// the system root; none where no file could have such a path (longer than
// PATH_MAX), which would take as much work as the square of its length.
std::vector<std::string> chain(const Mount& m, std::string path) {
  path.erase(0, m.root == "/" ? 0 : m.root.size());
  std::vector<std::string> dirs;
  if (m.point.size() + path.size() > PATH_MAX) return dirs;
  for (;;) {
    while (!path.empty() && path.back() == '/')
      path.pop_back();
    dirs.push_back(m.point + path);
    if (path.empty()) return dirs;
    path.erase(path.rfind('/'));
  }
}

// The cgroup path of each hierarchy that may bound the processors, from
// proc/self/cgroup: "" for v2, "cpu" and "cpuset" for v1, the first line of
// each (the kernel writes one a hierarchy); and "cpuset fs" from
// proc/self/cpuset, the path of the process's cpuset in whichever hierarchy
// holds cpusets (what older recordings keep instead of proc/self/cgroup).
std::map<std::string, std::string> cgroupPaths(SystemRoot& root) {
  std::map<std::string, std::string> paths;
  std::string text;
  root.text("proc/self/cgroup", &text);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t first = line.find(':');
    const std::size_t second = line.find(':', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    std::istringstream names(line.substr(first + 1, second - first - 1));
    const std::string path = line.substr(second + 1);
    if (second == first + 1) paths.emplace("", path);
    for (std::string name; std::getline(names, name, ',');)
      if (name == "cpu" || name == "cpuset") paths.emplace(name, path);
  }
  if (root.text("proc/self/cpuset", &text) == Read::kOk) paths.emplace("cpuset fs", text);
  return paths;
}

// What the kernel accepts for a CPU bandwidth limit, in microseconds: a
// period of 1 ms to 1 s, and a quota of at least 1 ms and at most 2^44 - 1
// (the kernel's MAX_BW); anything else in these files is not a limit.
constexpr long kMinPeriod = 1000;
constexpr long kMaxPeriod = 1000000;
constexpr long kMaxQuota = (1L << 44) - 1;

// The limit of `file` from its text and, for cgroup v1's quota, its
// period's, into *limits (see addLimit); kAbsent where the file is not
// there. Failures name the file.
Read read(SystemRoot& root, const LimitFile& file, CgroupLimits* limits,
          std::vector<LimitFile>* files) {
  std::string text;
  std::string period;
  std::string why;
  const Read r = root.text(file.path, &text);
  // A period is read only where there is a quota to go with it.
  if (r != Read::kOk || (file.kind == LimitFile::kCfsQuota && text != "-1" &&
                         root.text(file.period, &period) == Read::kAbsent))
    return r;
  if (files != nullptr) files->push_back(file);
  if (const std::string* blamed = addLimit(file, text, period, limits, &why))
    root.fail(*blamed, why);
  return r;
}

// The cpuset of the nearest folder that has one of `names`.
void readCpuset(SystemRoot& root, const std::vector<std::string>& dirs,
                std::initializer_list<const char*> names, CgroupLimits* limits,
                std::vector<LimitFile>* files) {
  for (const std::string& dir : dirs) {
    for (const char* name : names) {
      if (read(root, {LimitFile::kCpuset, dir + "/" + name, ""}, limits, files) != Read::kAbsent)
        return;
    }
  }
}

}  // namespace

const std::string* addLimit(const LimitFile& file, std::string_view text, std::string_view period,
                            CgroupLimits* limits, std::string* why) {
  const std::string most = std::to_string(kMaxQuota);
  long quota = -1;
  long microseconds = 0;
  text = trimmed(text);
  if (file.kind == LimitFile::kCpuset) {
    CpuSet set;
    if (!parseProcessorList(text, &set, why)) return &file.path;
    limits->cpuset = limits->cpuset ? *limits->cpuset & set : set;
    return nullptr;
  }
  if (file.kind == LimitFile::kCpuMax) {
    const std::size_t blank = text.find(' ');
    const std::string_view max = text.substr(0, blank);
    if (blank == std::string_view::npos ||
        !wholeNumber(text.substr(blank + 1), kMinPeriod, kMaxPeriod, &microseconds) ||
        (max != "max" && !wholeNumber(max, kMinPeriod, kMaxQuota, &quota))) {
      *why =
          "line 1: not \"max PERIOD\" or \"QUOTA PERIOD\" with a period from 1000 to "
          "1000000 and a quota from 1000 to " +
          most;
      return &file.path;
    }
  } else if (!wholeNumber(text, -1, kMaxQuota, &quota)) {
    *why = "line 1: not a whole number from -1 to " + most;
    return &file.path;
  } else if (quota != -1 && quota < kMinPeriod) {
    *why = "line 1: not -1 or a whole number from 1000 to " + most;
    return &file.path;
  } else if (quota != -1 && !wholeNumber(trimmed(period), kMinPeriod, kMaxPeriod, &microseconds)) {
    *why = "line 1: not a whole number from 1000 to 1000000";
    return &file.period;
  }
  if (quota == -1) return nullptr;  // no limit here
  const double processors = static_cast<double>(quota) / static_cast<double>(microseconds);
  if (!limits->quota || processors < *limits->quota) limits->quota = processors;
  return nullptr;
}

CpuSet usableOf(const CpuSet& online, const CpuSet* affinity, const CgroupLimits& limits) {
  const CpuSet usable = affinity != nullptr ? *affinity & online : online;
  return limits.cpuset ? usable & *limits.cpuset : usable;
}

std::int32_t effectiveOf(const CpuSet& usable, const std::optional<double>& quota) {
  // A quota of more processors than may be used leaves them as they are.
  auto effective = static_cast<std::int32_t>(usable.count());
  if (quota && *quota < effective) effective = static_cast<std::int32_t>(std::ceil(*quota));
  return std::max(effective, 1);
}

CgroupLimits readCgroupLimits(SystemRoot& root, std::vector<LimitFile>* files) {
  CgroupLimits limits;
  const std::vector<Mount> mounts = cgroupMounts(root);
  if (mounts.empty()) return limits;  // no control group file system to look in
  for (const auto& [controller, path] : cgroupPaths(root)) {
    const bool named = controller == "cpuset fs";
    // Of each kind of mount that holds the hierarchy, the one that shows
    // most of it (the shortest root, the first of those): a hierarchy
    // mounted many times is read once.
    const Mount* kinds[3] = {};  // v2, the old cpuset fs, v1
    for (const Mount& m : mounts) {
      const bool v2 = (controller.empty() || named) && m.type == "cgroup2";
      const bool old = named && m.type == "cpuset";
      const bool v1 = m.type == "cgroup" && m.options.find("," + (named ? "cpuset" : controller) +
                                                           ",") != std::string::npos;
      // The cgroup lies within what the mount shows, below its root as a path
      // of its own: "/jobless" is not below "/job", and a path that is not
      // absolute is below nothing.
      const std::size_t top = m.root == "/" ? 0 : m.root.size();
      const bool shown =
          path.compare(0, top, m.root, 0, top) == 0 && (path.size() == top || path[top] == '/');
      const Mount*& best = kinds[v2 ? 0 : old ? 1 : 2];
      if ((v2 || old || v1) && shown && (!best || m.root.size() < best->root.size())) best = &m;
    }
    for (const Mount* m : kinds) {
      if (m == nullptr) continue;
      const bool v2 = m->type == "cgroup2";
      const std::vector<std::string> dirs = chain(*m, path);
      if (!named && (v2 || controller == "cpu")) {
        for (const std::string& dir : dirs)
          read(root,
               v2 ? LimitFile{LimitFile::kCpuMax, dir + "/cpu.max", ""}
                  : LimitFile{LimitFile::kCfsQuota, dir + "/cpu.cfs_quota_us",
                              dir + "/cpu.cfs_period_us"},
               &limits, files);
      }
      const bool bare = m->type == "cpuset" || m->options.find(",noprefix,") != std::string::npos;
      const bool cpusets = named || controller == "cpuset";
      if (v2)
        readCpuset(root, dirs, {"cpuset.cpus.effective"}, &limits, files);
      else if (cpusets && bare)
        readCpuset(root, dirs, {"effective_cpus", "cpus", "cpuset.cpus"}, &limits, files);
      else if (cpusets)
        readCpuset(root, dirs, {"cpuset.effective_cpus", "cpuset.cpus"}, &limits, files);
    }
  }
  return limits;
}

}  // namespace detail
}  // namespace xrprocdetector
