#include "xrprocdetector/internal/word_reader.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "xrprocdetector/xrprocdetector_source.h"

namespace xrprocdetector {
namespace detail {

namespace {
// 64 KB takes a 256-processor /proc/cpuinfo in five reads; a longer word
// grows the buffer to fit it.
constexpr std::size_t kInitialCapacity = 64 * 1024;
}  // namespace

WordReader::WordReader(const char* path)
    : fd_(::open(path, O_RDONLY | O_CLOEXEC)),
      buffer_(new char[kInitialCapacity]),
      capacity_(kInitialCapacity) {
  failed_ = fd_ < 0;
  data_ = buffer_.get();
}

WordReader::WordReader(std::string_view text)
    : sourceDone_(true), data_(text.data()), end_(text.size()) {}

WordReader::~WordReader() {
  if (fd_ >= 0) ::close(fd_);
}

void WordReader::holdWord() {
  if (buffer_ && word_.data() >= buffer_.get() && word_.data() < buffer_.get() + capacity_) {
    held_.assign(word_);
    word_ = held_;
  }
}

bool WordReader::refill(std::size_t keepFrom) {
  if (sourceDone_ || failed_) return false;
  holdWord();
  std::size_t kept = end_ - keepFrom;
  if (keepFrom > 0 && kept > 0) std::memmove(buffer_.get(), buffer_.get() + keepFrom, kept);
  if (kept == capacity_) {
    // One word fills the whole buffer: double it.
    std::unique_ptr<char[]> bigger(new char[capacity_ * 2]);
    std::memcpy(bigger.get(), buffer_.get(), kept);
    buffer_ = std::move(bigger);
    capacity_ *= 2;
    data_ = buffer_.get();
  }
  pos_ -= keepFrom;
  end_ = kept;
  for (;;) {
    const ssize_t n = ::read(fd_, buffer_.get() + end_, capacity_ - end_);
    if (n > 0) {
      end_ += static_cast<std::size_t>(n);
      return true;
    }
    if (n == 0) {
      sourceDone_ = true;
      return false;
    }
    if (errno != EINTR) {
      // A read error turns the source into a failed one, as a stream whose
      // buffer cannot be filled goes bad: end of file is never reached.
      failed_ = true;
      return false;
    }
  }
}

bool WordReader::nextWord(std::size_t* start, std::size_t* length) {
  for (;;) {
    while (pos_ < end_ && isWordSpace(static_cast<unsigned char>(data_[pos_])))
      ++pos_;
    if (pos_ < end_) break;
    if (!refill(pos_)) return false;
  }
  std::size_t first = pos_;
  for (;;) {
    while (pos_ < end_ && !isWordSpace(static_cast<unsigned char>(data_[pos_])))
      ++pos_;
    if (pos_ < end_) break;
    // refill() moves the word's first bytes to the front of the buffer, also
    // when it then finds that the source has nothing more.
    const std::size_t length = pos_ - first;
    const bool more = refill(first);
    first = pos_ - length;
    if (!more) break;  // the word runs to the end of the input
  }
  *start = first;
  *length = pos_ - first;
  return true;
}

void WordReader::failedRead() {
  // The stream has failed without reaching end of file: nothing is read and
  // the scans wait forever. Giving the processor away each time keeps that
  // endless wait from starving the host's other threads.
  sched_yield();
}

void WordReader::read() {
  if (eof_) return;
  if (failed_) return failedRead();
  std::size_t start = 0;
  std::size_t length = 0;
  if (!nextWord(&start, &length)) {
    if (failed_) return failedRead();
    eof_ = true;  // no word before the end: the word in hand stays
    return;
  }
  word_ = std::string_view(data_ + start, length);
  // nextWord stops at the end of the buffer only when the source has nothing
  // more: a word that runs to the end of the input sets end of file with it.
  // (After a read error the partly read word is kept, and end of file still
  // never comes.)
  if (pos_ == end_ && !failed_) eof_ = true;
}

void WordReader::readUntilTrigger() {
  do
    read();
  while (!isTriggerWord(word_) && !eof_);
}

void WordReader::readUntilColon() {
  do
    read();
  while (word_ != ":" && !eof_);
}

WordReader openCpuinfo() {
  const XrCpuinfoRedirect* redirect = XrCpuinfoRedirect::active();
  if (redirect == nullptr) return WordReader("/proc/cpuinfo");
  if (redirect->kind() == XrCpuinfoRedirect::kText)
    return WordReader(std::string_view(redirect->value()));
  return WordReader(redirect->value().c_str());
}

}  // namespace detail
}  // namespace xrprocdetector

namespace {
thread_local const XrCpuinfoRedirect* activeRedirect = nullptr;
}  // namespace

XrCpuinfoRedirect::XrCpuinfoRedirect(Kind kind, std::string value)
    : kind_(kind), value_(std::move(value)), previous_(activeRedirect) {
  activeRedirect = this;
}

XrCpuinfoRedirect::~XrCpuinfoRedirect() {
  activeRedirect = previous_;
}

const XrCpuinfoRedirect* XrCpuinfoRedirect::active() {
  return activeRedirect;
}
