// Helpers shared by the test programs: capturing what a detector writes,
// finding fixtures, and running a detection in a child process.
#ifndef XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H
#define XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sched.h>

#include <cstdio>
#include <functional>
#include <string>

namespace testsupport {

// The path of a fixture in tests/data.
std::string fixture(const std::string& name);
// The bytes of a file.
std::string readFile(const std::string& path);

// Captures standard output and a debug stream of its own while it lives.
// Both are unbuffered and write into one log, so the order in which a
// detector wrote to them is kept: log() reads "out:" and "stream:" runs.
class OutputCapture {
 public:
  OutputCapture();
  ~OutputCapture();
  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  FILE* stream() const { return stream_; }
  // What went to standard output, and what went to the stream.
  const std::string& out() const { return out_; }
  const std::string& streamText() const { return stream_text_; }
  // Both, in the order written: e.g. "out:A|stream:A|".
  const std::string& log() const { return log_; }

 private:
  static ssize_t writeOut(void* self, const char* data, size_t size);
  static ssize_t writeStream(void* self, const char* data, size_t size);
  void append(const char* tag, std::string* text, const char* data, size_t size);

  FILE* saved_stdout_;
  FILE* out_file_;
  FILE* stream_;
  std::string out_;
  std::string stream_text_;
  std::string log_;
  const char* last_tag_ = nullptr;
};

// Unblocks SIGSEGV in the calling thread, as a test must after a VMware
// probe that faulted (the probe leaves it blocked by design).
void unblockSegv();

// A test that may leave the thread pinned (the CPUID search does when it
// fails, by design) or SIGSEGV blocked (a faulted VMware probe does): the
// thread gets its affinity back and SIGSEGV unblocked after each test.
class ThreadStateTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  // Whether the thread's affinity is the one it had before the test.
  bool affinityIsSaved() const;
  cpu_set_t saved_;
};

// Runs `body` in a child process; the child's exit status comes back. Used
// where a test changes process-wide state (mounts, signal masks) or may not
// return. When the child has not finished after `seconds`, it is killed and
// -1 is returned.
int runInChild(const std::function<int()>& body, double seconds = 20.0);

}  // namespace testsupport

#endif  // XRPROCDETECTOR_TESTS_SUPPORT_TEST_SUPPORT_H
