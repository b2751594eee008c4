// Saving this machine into a snapshot directory.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "xrprocdetector/internal/snapshot.h"
#include "xrprocdetector/xrprocdetector_linux32.h"

namespace dt = xrprocdetector::detail;
using dt::Read;
using dt::readFile;

namespace {

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

class Saver {
 public:
  explicit Saver(std::string* error) : error_(error) {}

  bool fail(const std::string& what) {
    *error_ = what + ": " + std::strerror(errno);
    return false;
  }

  // Makes the directory `name` under `parent` (shown as `shown`) and opens
  // it without following a link.
  int makeDir(int parent, const char* name, const std::string& shown) {
    if (::mkdirat(parent, name, 0755) != 0) {
      fail("cannot create " + shown);
      return -1;
    }
    const int fd = ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) fail("cannot open " + shown);
    return fd;
  }

  bool writeFile(int dir, const char* name, const std::string& shown, const std::string& data) {
    const int fd = ::openat(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return fail("cannot create " + shown);
    std::size_t done = 0;
    while (done < data.size()) {
      const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return fail("cannot write " + shown);
      }
      done += static_cast<std::size_t>(n);
    }
    if (::close(fd) != 0) return fail("cannot write " + shown);
    return true;
  }

  // Copies the live file `from` into `name` under `dir`; an absent source
  // is skipped unless `required`.
  bool copy(const std::string& from, int dir, const char* name, const std::string& shown,
            bool required) {
    std::string text;
    std::string why;
    const Read r = readFile(AT_FDCWD, from, &text, &why);
    if (r == Read::kOk) return writeFile(dir, name, shown, text);
    if (r == Read::kAbsent && !required) return true;
    // A file that the kernel shows but will not give (permissions, hardware
    // that refuses) is left out when it is optional.
    if (r == Read::kFailed && !required) return true;
    *error_ = from + ": " + (r == Read::kAbsent ? "cannot open: No such file or directory" : why);
    return false;
  }

 private:
  std::string* error_;
};

// The VMware probe as the default detector runs it, with the thread's
// SIGSEGV disposition and signal mask given back afterwards.
bool probeVmware() {
  struct sigaction before;
  sigaction(SIGSEGV, nullptr, &before);
  sigset_t mask;
  pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  XrProcDetectorLinux32 probe(tzDebugNone, 0, nullptr, nullptr);
  const bool answered = probe.IsInsideVMware();
  sigaction(SIGSEGV, &before, nullptr);
  pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return answered;
}

bool isNumbered(const char* name, const char* prefix) {
  const std::size_t n = std::strlen(prefix);
  if (std::strncmp(name, prefix, n) != 0 || name[n] == '\0') return false;
  for (const char* c = name + n; *c != '\0'; ++c) {
    if (*c < '0' || *c > '9') return false;
  }
  return true;
}

bool save(const std::string& dir, const std::string& savedBy, std::string* error) {
  if (XrSnapshotReplay::active() != nullptr) {
    *error = "cannot save a snapshot while a snapshot replay is active on this thread";
    return false;
  }
  Saver saver(error);
  // The directory: new, or empty; never a link.
  if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return saver.fail("cannot create " + dir);
  Fd root(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (root.get() < 0) return saver.fail("cannot open " + dir);
  {
    DIR* listing = ::fdopendir(::dup(root.get()));
    if (listing == nullptr) return saver.fail("cannot list " + dir);
    bool empty = true;
    while (const dirent* entry = ::readdir(listing)) {
      if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
        empty = false;
    }
    ::closedir(listing);
    if (!empty) {
      *error = dir + ": not empty; a snapshot goes into a new or empty directory";
      return false;
    }
  }
  const std::string shown = dir + "/";

  Fd proc(saver.makeDir(root.get(), "proc", shown + "proc"));
  if (proc.get() < 0 ||
      !saver.copy("/proc/cpuinfo", proc.get(), "cpuinfo", shown + "proc/cpuinfo", true))
    return false;

  // sys/devices/system/cpu and the few other kernel files.
  Fd sys(saver.makeDir(root.get(), "sys", shown + "sys"));
  if (sys.get() < 0) return false;
  Fd devices(saver.makeDir(sys.get(), "devices", shown + "sys/devices"));
  if (devices.get() < 0) return false;
  Fd system(saver.makeDir(devices.get(), "system", shown + "sys/devices/system"));
  if (system.get() < 0) return false;
  const std::string cpuShown = shown + "sys/devices/system/cpu";
  Fd cpu(saver.makeDir(system.get(), "cpu", cpuShown));
  if (cpu.get() < 0) return false;
  const std::string live = "/sys/devices/system/cpu/";
  for (const char* name : {"possible", "present", "online"}) {
    if (!saver.copy(live + name, cpu.get(), name, cpuShown + "/" + name, true)) return false;
  }
  std::vector<unsigned> numbers;
  if (DIR* listing = ::opendir(live.c_str())) {
    while (const dirent* entry = ::readdir(listing)) {
      if (isNumbered(entry->d_name, "cpu") && std::strlen(entry->d_name) < 9)
        numbers.push_back(static_cast<unsigned>(std::atoi(entry->d_name + 3)));
    }
    ::closedir(listing);
  }
  std::sort(numbers.begin(), numbers.end());
  static const char* const kTopology[] = {"physical_package_id",
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
  for (const unsigned n : numbers) {
    const std::string name = "cpu" + std::to_string(n);
    const std::string from = live + name + "/";
    const std::string to = cpuShown + "/" + name;
    Fd one(saver.makeDir(cpu.get(), name.c_str(), to));
    if (one.get() < 0 || !saver.copy(from + "online", one.get(), "online", to + "/online", false))
      return false;
    Fd topology(saver.makeDir(one.get(), "topology", to + "/topology"));
    if (topology.get() < 0) return false;
    for (const char* file : kTopology) {
      if (!saver.copy(from + "topology/" + file, topology.get(), file, to + "/topology/" + file,
                      false))
        return false;
    }
  }
  if (::access((live + "smt").c_str(), F_OK) == 0) {
    Fd smt(saver.makeDir(cpu.get(), "smt", cpuShown + "/smt"));
    if (smt.get() < 0) return false;
    for (const char* file : {"active", "control"}) {
      if (!saver.copy(live + "smt/" + file, smt.get(), file, cpuShown + "/smt/" + file, false))
        return false;
    }
  }
  {
    Fd cls(saver.makeDir(sys.get(), "class", shown + "sys/class"));
    Fd dmi(cls.get() < 0 ? -1 : saver.makeDir(cls.get(), "dmi", shown + "sys/class/dmi"));
    Fd id(dmi.get() < 0 ? -1 : saver.makeDir(dmi.get(), "id", shown + "sys/class/dmi/id"));
    if (id.get() < 0) return false;
    for (const char* file : {"sys_vendor", "product_name"}) {
      if (!saver.copy(std::string("/sys/class/dmi/id/") + file, id.get(), file,
                      shown + "sys/class/dmi/id/" + file, false))
        return false;
    }
  }
  if (::access("/sys/hypervisor/type", F_OK) == 0) {
    Fd hypervisor(saver.makeDir(sys.get(), "hypervisor", shown + "sys/hypervisor"));
    if (hypervisor.get() < 0 || !saver.copy("/sys/hypervisor/type", hypervisor.get(), "type",
                                            shown + "sys/hypervisor/type", false))
      return false;
  }

  // CPUID on every processor of the thread's affinity, pinned to each.
  cpu_set_t saved;
  CPU_ZERO(&saved);
  if (sched_getaffinity(0, sizeof saved, &saved) != 0)
    return saver.fail("cannot read the thread's affinity");
  std::vector<unsigned> affinity;
  for (unsigned p = 0; p < kSnapshotMaxProcessors; ++p) {
    if (CPU_ISSET(p, &saved)) affinity.push_back(p);
  }
  Fd cpuid(saver.makeDir(root.get(), "cpuid", shown + "cpuid"));
  if (cpuid.get() < 0) return false;
  bool ok = true;
  for (const unsigned p : affinity) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(p, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) {
      ok = saver.fail("cannot pin the thread to processor " + std::to_string(p));
      break;
    }
    const std::string name = "pu" + std::to_string(p);
    if (!saver.writeFile(cpuid.get(), name.c_str(), shown + "cpuid/" + name,
                         dt::dumpThisProcessor())) {
      ok = false;
      break;
    }
  }
  sched_setaffinity(0, sizeof saved, &saved);
  if (!ok) return false;

  const bool vmware = probeVmware();
  dt::SnapshotMetadata metadata;
  metadata.configured = sysconf(_SC_NPROCESSORS_CONF);
  metadata.online = sysconf(_SC_NPROCESSORS_ONLN);
  metadata.affinity = affinity;
  metadata.vmwareBackdoor = vmware;
  return saver.writeFile(root.get(), "xrprocdetect.json", shown + "xrprocdetect.json",
                         dt::formatMetadata(metadata, savedBy));
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
