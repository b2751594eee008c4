#include "support/test_support.h"

#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace testsupport {

std::string fixture(const std::string& name) {
  return std::string(XRPROCDETECTOR_TEST_DATA) + "/" + name;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

OutputCapture::OutputCapture() : saved_stdout_(stdout) {
  std::fflush(stdout);
  out_file_ = fopencookie(this, "w", {nullptr, &OutputCapture::writeOut, nullptr, nullptr});
  stream_ = fopencookie(this, "w", {nullptr, &OutputCapture::writeStream, nullptr, nullptr});
  std::setvbuf(out_file_, nullptr, _IONBF, 0);
  std::setvbuf(stream_, nullptr, _IONBF, 0);
  stdout = out_file_;
}

OutputCapture::~OutputCapture() {
  stdout = saved_stdout_;
  std::fclose(out_file_);
  std::fclose(stream_);
}

void OutputCapture::append(const char* tag, std::string* text, const char* data, size_t size) {
  text->append(data, size);
  if (last_tag_ != tag) {
    log_ += tag;
    last_tag_ = tag;
  }
  log_.append(data, size);
  log_ += '|';
}

ssize_t OutputCapture::writeOut(void* self, const char* data, size_t size) {
  auto* capture = static_cast<OutputCapture*>(self);
  capture->append("out:", &capture->out_, data, size);
  return static_cast<ssize_t>(size);
}

ssize_t OutputCapture::writeStream(void* self, const char* data, size_t size) {
  auto* capture = static_cast<OutputCapture*>(self);
  capture->append("stream:", &capture->stream_text_, data, size);
  return static_cast<ssize_t>(size);
}

void unblockSegv() {
  sigset_t segv;
  sigemptyset(&segv);
  sigaddset(&segv, SIGSEGV);
  pthread_sigmask(SIG_UNBLOCK, &segv, nullptr);
}

void ThreadStateTest::SetUp() {
  CPU_ZERO(&saved_);
  ASSERT_EQ(sched_getaffinity(0, sizeof saved_, &saved_), 0);
}

void ThreadStateTest::TearDown() {
  sched_setaffinity(0, sizeof saved_, &saved_);
  unblockSegv();
}

bool ThreadStateTest::affinityIsSaved() const {
  cpu_set_t now;
  CPU_ZERO(&now);
  sched_getaffinity(0, sizeof now, &now);
  return CPU_EQUAL(&now, &saved_);
}

int runInChild(const std::function<int()>& body, double seconds) {
  std::fflush(stdout);
  std::fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  const long stepNs = 10 * 1000 * 1000;
  for (double waited = 0; waited < seconds; waited += stepNs / 1e9) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) {
      return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    const timespec step{0, stepNs};
    nanosleep(&step, nullptr);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

}  // namespace testsupport
