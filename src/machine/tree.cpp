// A machine's files under a directory: the live machine's ("/"), a
// snapshot's or a system root's.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "machine/machine.h"

namespace xrprocdetector {
namespace detail {

TreeMachine::TreeMachine(const std::string& dir) : dir_(dir) {
  if (dir == "/") fd_ = AT_FDCWD;
  if (dir.empty() || dir == "/") return;
  fd_ = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd_ < 0) fail(&openError_, dir, std::strerror(errno));
}

TreeMachine::~TreeMachine() {
  if (fd_ >= 0) ::close(fd_);
}

// Live, the path itself from "/"; in a tree, relative to its directory.
std::string TreeMachine::at(const std::string& path) const {
  return fd_ == AT_FDCWD ? "/" + path : path.empty() ? "." : path;
}

Read TreeMachine::file(const std::string& path, std::size_t cap, std::string* text,
                       std::string* why) {
  text->clear();
  // This machine's /proc and /sys hold regular files alone, each read as it
  // is opened (4 system calls); a tree from elsewhere may hold anything, so
  // each of its files is opened only once it is known to be a regular one.
  return fd_ == -1 ? Read::kAbsent : readWholeFile(fd_, at(path), cap, text, why, fd_ == AT_FDCWD);
}

Read TreeMachine::entries(const std::string& path, std::vector<std::string>* names) {
  return listFolder(fd_, at(path), names);
}

bool TreeMachine::exists(const std::string& path) const {
  const int fd = fd_ == -1 ? -1 : openInRoot(fd_, at(path), O_PATH);
  return fd >= 0 && ::close(fd) == 0;
}

std::string TreeMachine::shown(const std::string& path) const {
  if (dir_ == "/") return "/" + path;
  return dir_ + (!dir_.empty() && dir_.back() == '/' ? "" : "/") + path;
}

}  // namespace detail
}  // namespace xrprocdetector
