#include "machine/machine.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace xrprocdetector {
namespace detail {

namespace {

const char* kindOf(mode_t mode) {
  if (S_ISDIR(mode)) return "a directory";
  if (S_ISFIFO(mode)) return "a FIFO";
  if (S_ISSOCK(mode)) return "a socket";
  if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
  return "not a regular file";
}

// openInRoot one component at a time: each opened with O_PATH|O_NOFOLLOW
// from the folder before it, a link's target put in the link's place (from
// the root when it is absolute), ".." going back up the folders entered but
// never above the root. The last component is opened again with `flags`.
int byComponents(int root, std::string rest, int flags) {
  std::vector<int> entered;  // the folders entered, from the root down
  const auto up = [&entered] { ::close(entered.back()), entered.pop_back(); };
  int links = 0;
  int fd = -1;
  for (bool last = false; !last;) {
    const std::size_t from = rest.find_first_not_of('/');
    const std::size_t to = rest.find('/', from);
    std::string name = from == std::string::npos ? "." : rest.substr(from, to - from);
    rest.erase(0, to);
    last = rest.find_first_not_of('/') == std::string::npos;
    if (name == ".." && !entered.empty()) up();
    if (name == "..") name = ".";
    const int at = entered.empty() ? root : entered.back();
    const int next = ::openat(at, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (next < 0) break;
    entered.push_back(next);
    char target[4096];
    const ssize_t n = ::readlinkat(next, "", target, sizeof target);  // -1 but for a link
    if (n > 0 || name == ".") up();  // a link gives way to its target; "." was entered
    while (n > 0 && target[0] == '/' && !entered.empty())
      up();
    if (n > 0 && ++links > 40) break;  // as many links as the kernel follows in one path
    if (n > 0) rest = std::string(target, static_cast<std::size_t>(n)) + "/" + rest;
    last = last && n <= 0;
    if (last) fd = ::openat(at, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
  }
  if (links > 40) errno = ELOOP;
  for (const int dir : entered)
    ::close(dir);  // errno is kept: close changes it only when it fails
  return fd;
}

// What `path` names under the root, opened for reading without blocking
// when it is of `type` (S_IFREG or S_IFDIR), *st saying what it is. It is
// found first as an O_PATH descriptor, so that nothing else, a device or a
// FIFO, is ever opened, and then that very file is opened. -1 with errno set
// when it cannot be (ENOTDIR when it is of another type).
int openChecked(int root, const std::string& path, mode_t type, struct stat* st) {
  const int at = openInRoot(root, path, O_PATH);
  if (at < 0) return -1;
  const int flags = O_RDONLY | O_NONBLOCK | (type == S_IFDIR ? O_DIRECTORY : 0);
  struct stat again {};
  int fd = -1;
  errno = ENOTDIR;
  if (::fstat(at, st) == 0 && (st->st_mode & S_IFMT) == type) {
    fd = ::open(("/proc/self/fd/" + std::to_string(at)).c_str(), flags | O_CLOEXEC);
    // Without /proc: found again, and taken only if it is still that file.
    if (fd < 0 && errno == ENOENT && (fd = openInRoot(root, path, flags)) >= 0 &&
        (::fstat(fd, &again) != 0 || again.st_ino != st->st_ino || again.st_dev != st->st_dev))
      ::close(fd), fd = -1, errno = ESTALE;
  }
  ::close(at);
  return fd;
}

}  // namespace

int openInRoot(int root, const std::string& path, int flags, bool componentwise) {
  if (root == AT_FDCWD) return ::open(path.c_str(), flags | O_CLOEXEC);
  open_how how{static_cast<std::uint64_t>(flags | O_CLOEXEC), 0, RESOLVE_IN_ROOT};
  const long fd = componentwise ? -1 : ::syscall(SYS_openat2, root, path.c_str(), &how, sizeof how);
  // openat2 is missing before Linux 5.6, and refused by some containers' filters.
  const bool missing = componentwise || (fd < 0 && (errno == ENOSYS || errno == EPERM));
  return missing ? byComponents(root, path, flags) : static_cast<int>(fd);
}

Read readWholeFile(int dirFd, const std::string& path, std::size_t cap, std::string* text,
                   std::string* error, bool anyKind) {
  text->clear();
  struct stat st {};
  // A pipe is opened as it is, to wait for what it will be given.
  const int fd =
      anyKind ? openInRoot(dirFd, path, O_RDONLY) : openChecked(dirFd, path, S_IFREG, &st);
  if (fd < 0) {
    const bool other = st.st_mode != 0 && !S_ISREG(st.st_mode);  // found, of another kind
    if (!other && errno == ENOENT) return Read::kAbsent;
    *error = other ? std::string(kindOf(st.st_mode)) + ", not a regular file"
                   : std::string("cannot open: ") + std::strerror(errno);
    return Read::kFailed;
  }
  // Straight into the text, sized by what the file says it holds (sysfs
  // files say 4096 whatever they hold; a pipe says 0), growing as needed.
  // A file that gave all it says it holds is done without another read.
  const std::size_t expected = anyKind ? 0 : static_cast<std::size_t>(st.st_size);
  text->resize(std::min(expected > 0 ? expected + 1 : 4096, cap + 1));
  std::size_t size = 0;
  for (;;) {
    if (size == text->size()) text->resize(std::min(2 * size, cap + 1));
    const ssize_t n = ::read(fd, &(*text)[size], text->size() - size);
    if (n > 0) size += static_cast<std::size_t>(n);
    const bool failed = size > cap || (n < 0 && errno != EINTR);
    if (size > cap)
      *error = cap >= (1u << 20) ? "larger than " + std::to_string(cap >> 20) + " MiB"
                                 : "larger than " + std::to_string(cap) + " bytes";
    else if (failed)
      *error = std::string("cannot read: ") + std::strerror(errno);
    else if (n < 0 || (n > 0 && size != expected))
      continue;  // interrupted, or more to come
    ::close(fd);
    text->resize(failed ? 0 : size);
    return failed ? Read::kFailed : Read::kOk;
  }
}

std::size_t capOf(const std::string& path) {
  if (path == "proc/cpuinfo") return kCpuinfoCap;
  return path.compare(0, 5, "proc/") == 0 ? kTableCap : kSmallFileCap;
}

bool parseProcessorList(std::string_view text, CpuSet* set, std::string* error) {
  *set = CpuSet();
  // One line; its end is optional.
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  const char* p = text.data();
  const char* const end = p + text.size();
  const auto number = [&p, end](unsigned long* n) {
    const auto r = std::from_chars(p, end, *n);
    if (r.ec == std::errc::result_out_of_range) *n = CpuSet::kLimit;
    const bool read = r.ptr != p;
    p = r.ptr;
    return read;
  };
  const char* why = nullptr;
  long previous = -1;
  while (p != end && why == nullptr) {
    unsigned long first = 0;
    bool ok = number(&first);
    unsigned long last = first;
    if (ok && p != end && *p == '-') ok = ++p != end && number(&last);
    if (!ok || last < first || (p != end && (*p != ',' || p + 1 == end)))
      why = "not a processor list such as 0-3,8-11";
    else if (last >= CpuSet::kLimit)
      why = "a processor number above 8191";
    else if (static_cast<long>(first) <= previous)
      why = "processor numbers are not in increasing order";
    for (unsigned long c = first; why == nullptr && c <= last; ++c)
      set->add(static_cast<unsigned>(c));
    previous = static_cast<long>(last);
    p += p != end ? 1 : 0;
  }
  if (why == nullptr) return true;
  *error = std::string("line 1: ") + why;
  return false;
}

bool parseCpuMask(std::string_view text, CpuSet* set, std::string* error) {
  *set = CpuSet();
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  unsigned bit = 0;
  // From the least significant digit, the last one.
  for (std::size_t i = text.size(); i-- > 0;) {
    if (text[i] == ',') continue;
    const int digit = hexDigit(text[i]);
    if (digit < 0) {
      *error = "line 1: not a CPU mask such as 00000000,000000ff";
      return false;
    }
    if (digit != 0 && bit + 4 > CpuSet::kLimit) {
      *error = "line 1: a processor number above 8191";
      return false;
    }
    for (unsigned b = 0; b < 4; ++b) {
      if ((digit >> b & 1) != 0) set->add(bit + b);
    }
    bit += 4;
  }
  return true;
}

bool numberedName(const std::string& name, const char* prefix, unsigned limit, unsigned* n,
                  std::string* problem) {
  const std::size_t from = std::strlen(prefix);
  if (name.compare(0, from, prefix) != 0 || name.size() == from ||
      name.find_first_not_of("0123456789", from) != std::string::npos)
    return false;
  unsigned long value = 0;
  for (std::size_t i = from; i < name.size() && value < limit; ++i)
    value = value * 10 + static_cast<unsigned long>(name[i] - '0');
  if (name.size() - from > 1 && name[from] == '0') {
    *problem = "not a processor number in canonical form (no leading zero)";
  } else if (value >= limit) {
    *problem = "processor number above " + std::to_string(limit - 1);
  } else {
    *n = static_cast<unsigned>(value);
  }
  return true;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string Error::text() const {
  if (file.empty()) return why;
  const std::string step = what.empty() ? "" : what + " ";
  return step + file + (why.compare(0, 5, "line ") == 0 ? " " : ": ") + why;
}

bool fail(Error* error, std::string file, std::string why, std::string what) {
  *error = Error{std::move(what), std::move(file), std::move(why)};
  return false;
}

std::string jsonQuoted(std::string_view text) {
  std::string out = "\"";
  for (const unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

std::string SystemRoot::shown(const std::string& path) const {
  return machine_.shown(base_ + path);
}

Read SystemRoot::fail(const std::string& path, const std::string& why) {
  if (error_.empty()) error_ = Error{"", shown(path), why};
  return Read::kFailed;
}

Read listFolder(int dirFd, const std::string& path, std::vector<std::string>* names) {
  names->clear();
  if (dirFd == -1) return Read::kAbsent;
  struct stat st {};
  const int fd = openChecked(dirFd, path, S_IFDIR, &st);
  DIR* listing = fd < 0 ? nullptr : ::fdopendir(fd);
  if (listing == nullptr) {
    const int why = errno;
    if (fd >= 0) ::close(fd);
    errno = why;
    return why == ENOENT ? Read::kAbsent : Read::kFailed;
  }
  while (const dirent* entry = ::readdir(listing)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
      names->push_back(entry->d_name);
  }
  ::closedir(listing);
  return Read::kOk;
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

bool wholeNumber(std::string_view text, long min, long max, long* value) {
  const auto r = std::from_chars(text.data(), text.data() + text.size(), *value);
  return r.ec == std::errc() && r.ptr == text.data() + text.size() && *value >= min &&
         *value <= max;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::strchr(" \t\n\r", text.back()) != nullptr)
    text.remove_suffix(1);
  return text;
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
