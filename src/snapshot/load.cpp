// Loading a snapshot directory, or a system root recorded for other
// topology tools: its parts, then what the readers read of its tree, kept
// in memory so that the tree may change or go.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "snapshot/snapshot_io.h"

namespace xrprocdetector {
namespace detail {

namespace {

// Reads `path` under the root into *text, not copied. kFailed sets
// *error, naming the file.
Read readPart(TreeMachine& root, const std::string& path, std::size_t cap, std::string* text,
              Error* error) {
  std::string why;
  const std::string* found = nullptr;
  const Read r = root.find(path, cap, &found, &why, text);
  if (r == Read::kFailed) fail(error, root.shown(path), why);
  return r;
}

// cpuid/puN (or the folder's own puN, for a CPUID folder given alone). Any
// other name ("pu0.txt", "info") is no dump; a dump whose number is not in
// canonical form or above the limit is refused. One file under several
// names is parsed once.
bool loadDumps(TreeMachine& root, const std::string& folder, SavedMachine* s, Error* error) {
  std::vector<std::string> names;
  const Read listed = root.entries(folder, &names);
  if (listed == Read::kFailed) fail(error, root.shown(folder), std::strerror(errno));
  if (listed != Read::kOk) return listed == Read::kAbsent;
  const std::string prefix = folder.empty() ? "" : folder + "/";
  std::vector<unsigned> processors;
  for (const std::string& name : names) {
    unsigned n = 0;
    std::string problem;
    if (!numberedName(name, "pu", kKernelMaxProcessors, &n, &problem)) continue;
    if (!problem.empty()) return fail(error, root.shown(prefix + name), problem);
    processors.push_back(n);
  }
  std::sort(processors.begin(), processors.end());
  std::map<const std::string*, unsigned> first;  // each file's first processor
  for (const unsigned n : processors) {
    const std::string file = prefix + "pu" + std::to_string(n);
    const std::string* text = nullptr;
    std::string why;
    if (root.find(file, kCpuidDumpCap, &text, &why) != Read::kOk)
      return fail(error, root.shown(file), why);
    const auto seen = first.emplace(text, n);
    if (!seen.second) s->sameDump[n] = seen.first->second;
    if (seen.second && !parseCpuidDump(*text, &s->cpuid[n], &why))
      return fail(error, root.shown(file), why);
  }
  return true;
}

// Without the metadata: the counts as glibc takes them from the lists, and
// the affinity of a process that nothing restricted.
bool loadLists(Machine& tree, SavedMachine* s, Error* error) {
  SystemRoot root(tree);
  CpuSet possible;
  CpuSet online;
  Read r = root.list("sys/devices/system/cpu/possible", &possible);
  if (r == Read::kOk) s->configured = static_cast<long>(possible.count());
  if (r != Read::kFailed) {
    r = root.list("sys/devices/system/cpu/online", &online);
    if (r == Read::kOk) s->online = static_cast<long>(online.count());
    if (r == Read::kOk) s->affinity = online;
  }
  if (r != Read::kFailed) return true;
  *error = root.error();
  return false;
}

bool load(const std::string& dir, SavedMachine* s, Error* error,
          const std::function<void(Machine&)>& readers) {
  *s = SavedMachine();
  s->dir = dir;
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return fail(error, dir, std::strerror(errno));
  if (!S_ISDIR(st.st_mode)) return fail(error, dir, "not a directory");
  const Fd fd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0) return fail(error, dir, std::strerror(errno));
  const auto exists = [&fd](const char* path) {  // a link included
    return ::faccessat(fd.get(), path, F_OK, AT_SYMLINK_NOFOLLOW) == 0;
  };
  if (exists(".xrprocdetect-saving"))
    return fail(error, dir,
                "an unfinished save (it has no xrprocdetect.json); save the snapshot again");
  const bool cpuidAlone = exists("pu0") && !exists("proc/cpuinfo");
  if (!cpuidAlone && !exists("proc/cpuinfo") && !exists("sys/devices/system/cpu") &&
      !exists("cpuid") && !exists("xrprocdetect.json")) {
    return fail(error, "",
                "not a snapshot: " + dir +
                    " holds none of proc/cpuinfo, sys/devices/system/cpu, cpuid/ and "
                    "xrprocdetect.json");
  }
  // Only then read: what is not a snapshot (/proc, a home folder) never is.
  TreeMachine root(fd.get(), st.st_dev, *s);
  std::string cpuinfo;
  const Read found = readPart(root, "proc/cpuinfo", kCpuinfoCap, &cpuinfo, error);
  if (found == Read::kFailed) return false;
  std::string text;
  Read r = readPart(root, "xrprocdetect.json", kSmallFileCap, &text, error);
  if (r == Read::kFailed) return false;
  const bool metadata = r == Read::kOk;
  std::string why;
  if (metadata && !parseMetadata(text, s, &why))
    return fail(error, root.shown("xrprocdetect.json"), why);
  if (!metadata && !loadLists(root, s, error)) return false;
  // A CPUID folder given by itself (as its gathering tool writes it) is a
  // snapshot of CPUID alone.
  if (!loadDumps(root, cpuidAlone && !metadata ? "" : "cpuid", s, error)) return false;
  // The parts are held (the metadata's text too, for who saved it and
  // when); the readers' own files now, and nothing else.
  s->files.clear(), s->failures.clear(), s->folders.clear();
  if (metadata) s->files["xrprocdetect.json"] = std::move(text);
  if (found == Read::kOk) s->files["proc/cpuinfo"] = std::move(cpuinfo);
  root.restart();
  try {
    if (readers) readers(root);
  } catch (const Missing&) {
  }
  return root.error().empty() || (*error = root.error(), false);
}

}  // namespace

bool loadSnapshot(const std::string& dir, SavedMachine* snapshot, Error* error,
                  const std::function<void(Machine&)>& readers) noexcept {
  try {
    return load(dir, snapshot, error, readers);
  } catch (const std::bad_alloc&) {
    return fail(error, dir, "out of memory");
  }
}

}  // namespace detail
}  // namespace xrprocdetector
