// The word reader against `stream >> word` over the same bytes: as a text in
// memory, and (when the first byte is odd) repeated past two buffers' worth
// into a memory file, so that refills cut words anywhere. The input's first
// bytes script a run of read, readUntilTrigger and readUntilColon, then the
// /proc/cpuinfo walk takes the rest; any difference in the words, the
// end-of-file state or the values the walk records aborts.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "legacy/word_reader.h"
#include "support/stream_word_reader.h"

using testsupport::referenceTranscript;
using xrprocdetector::detail::WordReader;

namespace {

void require(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "readers disagree: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string script = bytes.substr(0, 16);
  WordReader text(bytes);
  require(testsupport::transcript(text, script) == referenceTranscript(bytes, script), "text");
  if (size == 0 || data[0] % 2 == 0) return 0;

  std::string big;
  while (big.size() <= 2 * WordReader::kBufferSize)
    big += bytes;
  const int fd = memfd_create("cpuinfo", 0);
  require(fd >= 0 && write(fd, big.data(), big.size()) == static_cast<ssize_t>(big.size()),
          "memory file");
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  WordReader file(path.c_str());
  require(testsupport::transcript(file, script) == referenceTranscript(big, script), "file");
  close(fd);
  return 0;
}
