// Loading a snapshot directory.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "xrprocdetector/internal/snapshot.h"

namespace dt = xrprocdetector::detail;
using dt::Read;
using dt::readFile;

namespace xrprocdetector {
namespace detail {

// The largest file read: a /proc/cpuinfo of 8,192 processors is about
// 16 MiB; every other file of a snapshot is far smaller.
constexpr std::size_t kMaxFileBytes = 64u << 20;

Read readFile(int dirFd, const std::string& name, std::string* text, std::string* error) {
  text->clear();
  const int fd = ::openat(dirFd, name.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return Read::kAbsent;
    *error = "cannot open: " + std::string(std::strerror(errno));
    return Read::kFailed;
  }
  char buffer[16384];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0 && text->size() + static_cast<std::size_t>(n) > kMaxFileBytes) {
      *error = "larger than " + std::to_string(kMaxFileBytes >> 20) + " MiB";
      break;
    }
    if (n > 0) {
      text->append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n == 0) {
      ::close(fd);
      return Read::kOk;
    }
    if (errno != EINTR) {
      *error = "cannot read: " + std::string(std::strerror(errno));
      break;
    }
  }
  ::close(fd);
  return Read::kFailed;
}

}  // namespace detail
}  // namespace xrprocdetector

namespace {

// A processor list file of the snapshot; kAbsent leaves *list empty.
Read readList(const std::string& dir, const char* name, std::vector<unsigned>* list,
              std::string* error) {
  std::string text;
  const std::string path = dir + "/" + name;
  const Read r = readFile(AT_FDCWD, path, &text, error);
  if (r == Read::kOk && !dt::parseProcessorList(text, list, error)) {
    *error = path + " " + *error;
    return Read::kFailed;
  }
  if (r == Read::kFailed) *error = path + ": " + *error;
  return r;
}

bool load(const std::string& dir, XrMachineSnapshot* s, std::string* error) {
  *s = XrMachineSnapshot();
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) {
    *error = dir + ": " + std::strerror(errno);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    *error = dir + ": not a directory";
    return false;
  }
  std::string text;
  std::string path = dir + "/proc/cpuinfo";
  Read r = readFile(AT_FDCWD, path, &text, error);
  if (r == Read::kFailed) {
    *error = path + ": " + *error;
    return false;
  }
  if (r == Read::kOk) s->cpuinfo = std::move(text);

  path = dir + "/xrprocdetect.json";
  r = readFile(AT_FDCWD, path, &text, error);
  if (r == Read::kFailed) {
    *error = path + ": " + *error;
    return false;
  }
  if (r == Read::kOk) {
    dt::SnapshotMetadata m;
    if (!dt::parseMetadata(text, &m, error)) {
      *error = path + " " + *error;
      return false;
    }
    s->hasMetadata = true;
    s->configured = m.configured;
    s->online = m.online;
    s->affinity = std::move(m.affinity);
    s->vmwareBackdoor = m.vmwareBackdoor;
  } else {
    // As glibc counts them, and the affinity of a process that nothing
    // restricted.
    std::vector<unsigned> possible;
    std::vector<unsigned> online;
    r = readList(dir, "sys/devices/system/cpu/possible", &possible, error);
    if (r == Read::kFailed) return false;
    if (r == Read::kOk) s->configured = static_cast<long>(possible.size());
    r = readList(dir, "sys/devices/system/cpu/online", &online, error);
    if (r == Read::kFailed) return false;
    if (r == Read::kOk) {
      s->online = static_cast<long>(online.size());
      s->affinity = std::move(online);
    }
  }

  // A CPUID folder given by itself (as its gathering tool writes it) is a
  // snapshot of CPUID alone.
  path = dir + "/cpuid";
  if (!s->cpuinfo && !s->hasMetadata && ::access((dir + "/pu0").c_str(), F_OK) == 0) path = dir;
  DIR* folder = ::opendir(path.c_str());
  if (folder == nullptr) {
    if (errno == ENOENT) return true;
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  std::vector<unsigned> processors;
  bool ok = true;
  while (const dirent* entry = ::readdir(folder)) {
    // pu0, pu1, ...; anything else (such as an information file) is not a
    // dump.
    const char* name = entry->d_name;
    if (std::strncmp(name, "pu", 2) != 0 || name[2] == '\0') continue;
    unsigned n = 0;
    bool digits = true;
    for (const char* c = name + 2; *c != '\0' && digits; ++c) {
      digits = *c >= '0' && *c <= '9' && n < kSnapshotMaxProcessors;
      n = n * 10 + static_cast<unsigned>(*c - '0');
    }
    if (!digits) continue;
    if (n >= kSnapshotMaxProcessors) {
      *error = path + "/" + name + ": processor number above " +
               std::to_string(kSnapshotMaxProcessors - 1);
      ok = false;
      break;
    }
    processors.push_back(n);
  }
  ::closedir(folder);
  if (!ok) return false;
  std::sort(processors.begin(), processors.end());
  for (const unsigned n : processors) {
    const std::string file = path + "/pu" + std::to_string(n);
    r = readFile(AT_FDCWD, file, &text, error);
    if (r != Read::kOk) {
      *error = file + ": " + (r == Read::kAbsent ? "cannot open: vanished" : *error);
      return false;
    }
    if (!dt::parseCpuidDump(text, &s->cpuid[n], error)) {
      *error = file + " " + *error;
      return false;
    }
  }
  return true;
}

}  // namespace

bool xrLoadSnapshot(const std::string& dir, XrMachineSnapshot* snapshot,
                    std::string* error) noexcept {
  try {
    return load(dir, snapshot, error);
  } catch (const std::bad_alloc&) {
    *error = dir + ": out of memory";
    return false;
  }
}
