// A snapshot's or a system root's tree on disk, read as the readers ask.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

bool TreeMachine::hold(std::size_t bytes) {
  held_ += bytes;
  return held_ <= kTreeCap ||
         fail(&error_, saved_.dir, largerThan(kTreeCap) + " in all, more than any snapshot");
}

// Why `path` could not be opened (errno): nothing there, or a link that
// leads to nothing inside the tree.
Read TreeMachine::unopened(const std::string& path, std::string* why) {
  const int error = errno;
  if (error == ENOENT || error == ELOOP) {
    // The link itself, when the last name is one.
    const Fd link(openInRoot(fd_, path, O_PATH | O_NOFOLLOW));
    if (link.get() < 0 && error == ENOENT) return Read::kAbsent;
    *why = "a link to nothing in " + saved_.holder;
    return Read::kFailed;
  }
  if (error == ENOTDIR || error == EXDEV) return Read::kAbsent;  // under a file, or elsewhere
  *why = std::string("cannot open: ") + std::strerror(error);
  return Read::kFailed;
}

TreeMachine::~TreeMachine() {
  if (folderFd_ >= 0) ::close(folderFd_);
}

int TreeMachine::folder(const std::string& path) {
  if (path == folderPath_ && folderFd_ != -2) return errno = folderErrno_, folderFd_;
  if (folderFd_ >= 0) ::close(folderFd_);
  folderPath_ = path;
  folderFd_ = openInRoot(fd_, path.empty() ? "." : path, O_PATH | O_DIRECTORY);
  folderErrno_ = errno;
  return folderFd_;
}

Read TreeMachine::find(const std::string& path, std::size_t cap, const std::string** text,
                       std::string* why) {
  if (!error_.empty()) return *why = error_.why, Read::kFailed;
  // Looked at in its folder before it is opened, so that a FIFO or a device
  // put in a tree is never opened, let alone read: a file of a folder whose
  // files are read one after another costs four system calls, and a file
  // read already under another name one. A link is followed inside the tree.
  const std::size_t slash = path.rfind('/');
  const std::string name = path.substr(slash + 1);
  const int dir = folder(slash == std::string::npos ? "" : path.substr(0, slash));
  struct stat st {};
  // Under no folder, nothing; through a link to nothing, a broken file.
  if (dir < 0 && (errno == ENOENT || errno == ENOTDIR || errno == EXDEV)) return Read::kAbsent;
  const bool plain = dir >= 0 && name != "." && name != ".." && !name.empty();
  if (plain && ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
    return errno == ENOENT ? Read::kAbsent : unopened(path, why);
  Fd linked(plain && !S_ISLNK(st.st_mode) ? -1 : openInRoot(fd_, path, O_PATH));
  if (!plain || S_ISLNK(st.st_mode)) {
    if (linked.get() < 0 || ::fstat(linked.get(), &st) != 0) return unopened(path, why);
  }
  if (!S_ISREG(st.st_mode) || st.st_dev != device_)
    return S_ISREG(st.st_mode) ? Read::kAbsent : (*why = notRegular(st.st_mode), Read::kFailed);
  auto known = read_.find({st.st_dev, st.st_ino});
  if (known == read_.end()) {
    const int fd = linked.get() >= 0
                       ? openInRoot(fd_, path, O_RDONLY | O_NONBLOCK | O_NOCTTY)
                       : ::openat(dir, name.c_str(),
                                  O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    std::string bytes;
    if (fd < 0) return unopened(path, why);
    const Read r = readOpen(fd, static_cast<std::size_t>(st.st_size), cap, &bytes, why);
    if (r != Read::kOk) return r;
    if (!hold(bytes.size())) return *why = error_.why, Read::kFailed;
    known = read_.emplace(std::pair(st.st_dev, st.st_ino), std::move(bytes)).first;
  }
  if (known->second.size() > cap) return *why = largerThan(cap), Read::kFailed;
  *text = &known->second;
  return Read::kOk;
}

Read TreeMachine::file(const std::string& path, std::size_t cap, std::string* text,
                       std::string* why) {
  const std::string* found = nullptr;
  text->clear();
  Read r = find(path, cap, &found, why);
  if (r == Read::kOk && !hold(path.size() + found->size())) r = (*why = error_.why, Read::kFailed);
  if (r == Read::kOk) *text = *found;
  if (r != Read::kAbsent)
    (r == Read::kOk ? saved_.files : saved_.failures)[path] = r == Read::kOk ? *text : *why;
  return r;
}

Read TreeMachine::entries(const std::string& path, std::vector<std::string>* names) {
  const Read r = listFolder(fd_, path, names);
  std::size_t bytes = path.size();
  for (const std::string& name : *names)
    bytes += name.size() + sizeof name;
  if (r != Read::kOk) return r;
  if (!hold(bytes)) return errno = EFBIG, Read::kFailed;
  saved_.folders[path] = *names;
  return r;
}

}  // namespace detail
}  // namespace xrprocdetector
