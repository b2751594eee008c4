// The word reader against `stream >> word`: texts that each test one rule of
// the extraction, a file whose words straddle the buffer's refills, and a
// text reader that leaves descriptor 0 alone.
#include <fcntl.h>

#include <string>

#include "legacy/word_reader.h"
#include "support/stream_word_reader.h"
#include "support/test_support.h"

namespace {

using testsupport::referenceTranscript;
using xrprocdetector::detail::WordReader;

// `bytes` bytes of words drawn from trigger words, their near misses and
// other words, behind every kind of separator, the same for every run.
std::string mixedWords(std::size_t bytes) {
  static const char* const kWords[] = {"processor", "cpu",   "core",  "physical", ":",  "id",
                                       "cores",     "pcid",  "cpuid", "c",        "p",  "0",
                                       "flags",     "model", "fpu",   "proc",     "x:", "16"};
  static const char kSeparators[] = " \t\n\v\f\r";
  std::string text;
  for (unsigned n = 1; text.size() < bytes; n = n * 1103515245u + 12345u) {
    text += kWords[(n >> 8) % 18];
    text.append(1 + (n >> 20) % 3, kSeparators[(n >> 16) % 6]);
  }
  return text;
}

// `text` with each \xHH replaced by the byte HH.
std::string unescaped(std::string text) {
  for (std::size_t at; (at = text.find("\\x")) != std::string::npos;)
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  return text;
}

// The texts of tables/word_reader.txt, and words of every kind mixed, each
// prefix of each as a view into the whole: nothing past the end of a text is
// read, even where the bytes after it would start a trigger word.
TEST(WordReader, ReadsAsStreamExtractionDoes) {
  auto cases = testsupport::table("tables/word_reader.txt");
  cases.push_back({"mixed words", mixedWords(4096), "1201102"});
  for (const auto& c : cases) {
    SCOPED_TRACE(c[0]);
    const std::string text = unescaped(c.at(1));
    std::string script = c.at(2);
    for (char& step : script)
      step = static_cast<char>(step - '0');
    for (std::size_t n = 0; n <= text.size(); ++n) {
      WordReader reader(std::string_view(text.data(), n));
      EXPECT_EQ(testsupport::transcript(reader, script),
                referenceTranscript(text.substr(0, n), script))
          << n;
    }
  }
}

TEST(WordReader, FileWordsStraddleRefillsAndOutgrowTheBuffer) {
  // Blocks whose words fall on every offset of a buffer, then one word three
  // buffers long, then more blocks: the walk must see what the stream sees.
  std::string text;
  for (int n = 0; text.size() < 3 * WordReader::kBufferSize; ++n) {
    text += "processor\t: " + std::to_string(n) + "\ncpu MHz : 2.0\nflags : fpu pcid cx8" +
            std::string(static_cast<std::size_t>(n % 7), ' ') +
            "\ncore id\t: " + std::to_string(n % 5) + "\nphysical id : " + std::to_string(n % 3) +
            "\n\n";
  }
  text += std::string(3 * WordReader::kBufferSize, 'p') + "\ncpu cores : 4\n";
  // And a last word whose bytes the refills overwrite with separators.
  const std::string texts[] = {
      text, mixedWords(3 * WordReader::kBufferSize),
      mixedWords(100) + "last" + std::string(2 * WordReader::kBufferSize, '\n')};
  const testsupport::Scratch scratch;
  const std::string path = (scratch.path / "cpuinfo").string();
  for (const std::string& t : texts) {
    scratch.write("cpuinfo", t);
    for (const std::string& script : {std::string(), std::string("\0\0\1\2\0\1", 6)}) {
      WordReader reader(path.c_str());
      EXPECT_EQ(testsupport::transcript(reader, script), referenceTranscript(t, script));
    }
  }
}

TEST(WordReader, ClosesOnlyWhatItOpened) {
  // A text reader has no file: standard input (descriptor 0) stays open.
  ASSERT_TRUE(fcntl(0, F_GETFD) != -1 || open("/dev/null", O_RDONLY) == 0);
  { WordReader text(std::string_view("processor : 0")); }
  EXPECT_NE(fcntl(0, F_GETFD), -1);
}

}  // namespace
