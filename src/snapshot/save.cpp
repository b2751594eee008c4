// Saving this machine into a snapshot directory. Everything is written into
// a working folder inside the directory and moved into place at the end,
// xrprocdetect.json last; a save that fails removes what it wrote, and one
// cut off (the process killed) leaves the working folder, which loading
// refuses as an unfinished save.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "platform/machine.h"
#include "snapshot/snapshot_io.h"
#include "sysroot/cgroup.h"
#include "sysroot/root.h"

namespace dt = xrprocdetector::detail;
using dt::Read;

namespace {

const char kWork[] = ".xrprocdetect-saving";

const char* const kTopology[] = {"physical_package_id",
                                 "die_id",
                                 "core_id",
                                 "core_cpus_list",
                                 "core_cpus",
                                 "thread_siblings",
                                 "thread_siblings_list",
                                 "core_siblings",
                                 "core_siblings_list",
                                 "package_cpus_list",
                                 "package_cpus",
                                 "die_cpus_list",
                                 "die_cpus"};

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Copies live files into the working folder, naming each by where it will
// stand in the snapshot.
class Saver {
 public:
  Saver(const std::string& dir, int work, std::string* error)
      : shown_(dir + "/"), work_(work), live_("/"), error_(error) {}

  bool fail(const std::string& what) {
    *error_ = what + ": " + std::strerror(errno);
    return false;
  }

  // Makes the folders of `path` (relative to the snapshot) that are not
  // there yet.
  bool makeDirs(const std::string& path) {
    for (std::size_t at = 0; at != std::string::npos;) {
      at = path.find('/', at + 1);
      const std::string part = path.substr(0, at);
      if (::mkdirat(work_, part.c_str(), 0755) != 0 && errno != EEXIST)
        return fail("cannot create " + shown_ + part);
    }
    return true;
  }

  bool write(const std::string& path, const std::string& data) {
    const int fd =
        ::openat(work_, path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return fail("cannot create " + shown_ + path);
    std::size_t done = 0;
    while (done < data.size()) {
      const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const int saved = n == 0 ? ENOSPC : errno;
        ::close(fd);
        errno = saved;
        return fail("cannot write " + shown_ + path);
      }
      done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) return fail("cannot write " + shown_ + path);
    return true;
  }

  // Copies the live file at `path` to the same path in the snapshot. A file
  // that is absent, or that the kernel shows but will not give (permissions,
  // hardware that refuses), is left out unless `required`. Each file is
  // taken within the cap that loading it again applies.
  bool copy(const std::string& path, bool required) {
    std::string text;
    std::string why;
    const Read r = dt::readWholeFile(live_.fd(), path, dt::capOf(path), &text, &why);
    if (r == Read::kOk) return write(path, text);
    if (!required) return true;
    *error_ =
        "/" + path + ": " + (r == Read::kAbsent ? "cannot open: No such file or directory" : why);
    return false;
  }

  bool exists(const std::string& path) const { return live_.exists(path); }

  // Copies `path`, with the folders it is in, when the live file is there.
  bool copyIfThere(const std::string& path) {
    if (!live_.exists(path)) return true;
    return makeDirs(path.substr(0, path.rfind('/'))) && copy(path, false);
  }

  dt::SystemRoot& live() { return live_; }

 private:
  std::string shown_;
  int work_;
  dt::SystemRoot live_;
  std::string* error_;
};

// What the kernel row reads beyond sys/devices/system/cpu: the process's
// control groups and the files of their limits, the PCI devices' vendors,
// and the files that tell core kinds apart.
bool saveMoreKernelFiles(Saver& saver, const std::vector<unsigned>& processors) {
  std::vector<std::string> files = {"proc/self/cgroup", "proc/self/mountinfo", "proc/self/cpuset",
                                    "sys/devices/cpu_core/cpus", "sys/devices/cpu_atom/cpus"};
  for (std::string& file : dt::readCgroupLimits(saver.live(), dt::kKernelMaxProcessors).files)
    files.push_back(std::move(file));
  for (const unsigned n : processors) {
    const std::string folder = "sys/devices/system/cpu/cpu" + std::to_string(n) + "/";
    files.push_back(folder + "cpufreq/base_frequency");
    files.push_back(folder + "acpi_cppc/highest_perf");
  }
  std::vector<std::string> devices;
  saver.live().entries("sys/bus/pci/devices", &devices);
  for (const std::string& device : devices)
    files.push_back("sys/bus/pci/devices/" + device + "/vendor");
  std::sort(files.begin(), files.end());
  files.erase(std::unique(files.begin(), files.end()), files.end());
  for (const std::string& file : files) {
    if (!saver.copyIfThere(file)) return false;
  }
  return true;
}

// proc/cpuinfo, sys/devices/system/cpu and the few other kernel files.
bool saveKernelFiles(Saver& saver) {
  const std::string cpu = "sys/devices/system/cpu/";
  if (!saver.makeDirs("proc") || !saver.copy("proc/cpuinfo", true)) return false;
  if (!saver.makeDirs(cpu.substr(0, cpu.size() - 1))) return false;
  for (const char* name : {"possible", "present", "online"}) {
    if (!saver.copy(cpu + name, true)) return false;
  }
  const std::vector<unsigned> processors = saver.live().processorFolders(cpu);
  for (const unsigned n : processors) {
    const std::string folder = cpu + "cpu" + std::to_string(n) + "/";
    if (!saver.makeDirs(folder + "topology") || !saver.copy(folder + "online", false)) return false;
    for (const char* file : kTopology) {
      if (!saver.copy(folder + "topology/" + file, false)) return false;
    }
  }
  if (saver.exists(cpu + "smt")) {
    if (!saver.makeDirs(cpu + "smt") || !saver.copy(cpu + "smt/active", false) ||
        !saver.copy(cpu + "smt/control", false))
      return false;
  }
  if (!saver.makeDirs("sys/class/dmi/id") || !saver.copy("sys/class/dmi/id/sys_vendor", false) ||
      !saver.copy("sys/class/dmi/id/product_name", false))
    return false;
  return saver.copyIfThere("sys/hypervisor/type") && saveMoreKernelFiles(saver, processors);
}

// CPUID on every processor of the thread's affinity, pinned to each; the
// affinity is given back after.
bool saveDumps(Saver& saver, std::vector<unsigned>* affinity) {
  cpu_set_t saved;
  CPU_ZERO(&saved);
  if (sched_getaffinity(0, sizeof saved, &saved) != 0)
    return saver.fail("cannot read the thread's affinity");
  for (unsigned p = 0; p < kSnapshotMaxProcessors; ++p) {
    if (CPU_ISSET(p, &saved)) affinity->push_back(p);
  }
  if (!saver.makeDirs("cpuid")) return false;
  bool ok = true;
  for (const unsigned p : *affinity) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(p, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
      ok = saver.fail("cannot pin the thread to processor " + std::to_string(p));
      break;
    }
    if (!saver.write("cpuid/pu" + std::to_string(p), dt::dumpThisProcessor())) {
      ok = false;
      break;
    }
  }
  sched_setaffinity(0, sizeof saved, &saved);
  return ok;
}

// The names in the folder open as `fd`, without "." and "..".
bool names(int fd, std::vector<std::string>* out) {
  const int own = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (own < 0) return false;
  DIR* folder = ::fdopendir(own);
  if (folder == nullptr) return ::close(own), false;
  while (const dirent* entry = ::readdir(folder)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      out->push_back(entry->d_name);
  }
  return ::closedir(folder) == 0;
}

void clear(int fd);

// Removes `name` in the folder open as `fd`, and all below it, through
// descriptors only: a link is removed, never followed.
void remove(int fd, const std::string& name) {
  const Fd folder(::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() >= 0) clear(folder.get());
  ::unlinkat(fd, name.c_str(), folder.get() >= 0 ? AT_REMOVEDIR : 0);
}

// Empties the folder open as `fd`.
void clear(int fd) {
  std::vector<std::string> inside;
  names(fd, &inside);
  for (const std::string& name : inside)
    remove(fd, name);
}

// Everything into the working folder `work`, then each of its entries into
// place, the metadata last; *moved names those moved.
bool saveInto(const std::string& dir, int root, int work, const std::string& savedBy,
              std::vector<std::string>* moved, std::string* error) {
  Saver saver(dir, work, error);
  if (work < 0) return saver.fail("cannot open " + dir + "/" + kWork);
  dt::SnapshotMetadata metadata;
  std::vector<std::string> parts;
  if (!saveKernelFiles(saver) || !saveDumps(saver, &metadata.affinity)) return false;
  {
    const dt::SignalState signals;
    metadata.vmwareBackdoor = dt::guardedVmwareProbe();
  }
  metadata.configured = sysconf(_SC_NPROCESSORS_CONF);
  metadata.online = sysconf(_SC_NPROCESSORS_ONLN);
  if (!names(work, &parts)) return saver.fail("cannot list " + dir + "/" + kWork);
  parts.push_back("xrprocdetect.json");
  if (!saver.write("xrprocdetect.json", dt::formatMetadata(metadata, savedBy))) return false;
  for (const std::string& part : parts) {
    if (::renameat(work, part.c_str(), root, part.c_str()) != 0)
      return saver.fail("cannot move " + dir + "/" + kWork + "/" + part + " into place");
    moved->push_back(part);
  }
  return true;
}

// Saves into `dir`, new or empty and never a symbolic link, opened once:
// every step, and the removal of what a failed save wrote, goes through
// that descriptor. The directory itself is removed when this save made it
// and it is still the one opened.
bool save(const std::string& dir, const std::string& savedBy, std::string* error) {
  if (dt::MachineStandIn::active() != nullptr) {
    *error = "cannot save a snapshot while a snapshot replay is active on this thread";
    return false;
  }
  const bool created = ::mkdir(dir.c_str(), 0755) == 0;
  if (!created && errno != EEXIST)
    return *error = "cannot create " + dir + ": " + std::strerror(errno), false;
  const Fd root(::open(dir.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened, now;
  if (root.get() < 0 && ::lstat(dir.c_str(), &now) == 0 && S_ISLNK(now.st_mode))
    return *error = dir +
                    ": a symbolic link; a snapshot goes into a new or empty directory, "
                    "named itself rather than through a link",
           false;
  if (root.get() < 0) return *error = "cannot open " + dir + ": " + std::strerror(errno), false;
  std::vector<std::string> found, moved;
  if (!names(root.get(), &found)) {
    *error = "cannot open " + dir + ": " + std::strerror(errno);
  } else if (!found.empty()) {
    *error = dir + ": not empty; a snapshot goes into a new or empty directory";
  } else if (::mkdirat(root.get(), kWork, 0755) != 0) {
    *error = "cannot create " + dir + "/" + kWork + ": " + std::strerror(errno);
  } else {
    const Fd work(::openat(root.get(), kWork, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (saveInto(dir, root.get(), work.get(), savedBy, &moved, error)) {
      if (::unlinkat(root.get(), kWork, AT_REMOVEDIR) == 0) return true;
      *error = "cannot remove " + dir + "/" + kWork + ": " + std::strerror(errno);
    }
    clear(work.get());
    ::unlinkat(root.get(), kWork, AT_REMOVEDIR);
    for (const std::string& part : moved)
      remove(root.get(), part);
  }
  if (created && ::fstat(root.get(), &opened) == 0 && ::lstat(dir.c_str(), &now) == 0 &&
      opened.st_dev == now.st_dev && opened.st_ino == now.st_ino)
    ::rmdir(dir.c_str());
  return false;
}

}  // namespace

bool xrSaveSnapshot(const std::string& dir, const std::string& savedBy,
                    std::string* error) noexcept {
  try {
    return save(dir, savedBy, error);
  } catch (const std::bad_alloc&) {
    *error = dir + ": out of memory";
    return false;
  }
}
