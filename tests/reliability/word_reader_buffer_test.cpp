// The word reader's buffer passes from one reader to the next on a thread,
// and its trigger-word search comes in three widths (SSE2, AVX2, AVX-512).
// Neither may show in what a reader hands out: a reader sees only its own
// file's bytes, whatever an earlier reader left in the buffer, and every
// search finds the words that `stream >> word` finds.
#include <gtest/gtest.h>

#include <cstdio>
#include <locale>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "xrprocdetector/internal/word_reader.h"

namespace {

using xrprocdetector::detail::StreamWordReader;
using xrprocdetector::detail::WordReader;

class TempFile {
 public:
  TempFile(const std::string& name, const std::string& text)
      : path_(::testing::TempDir() + "/" + name) {
    std::FILE* f = std::fopen(path_.c_str(), "w");
    if (f != nullptr) {
      std::fwrite(text.data(), 1, text.size(), f);
      std::fclose(f);
    }
  }
  ~TempFile() { std::remove(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_;
};

// Every word a loop of plain reads hands out, up to end of file.
template <class Reader>
std::vector<std::string> allWords(Reader& in) {
  std::vector<std::string> words;
  do {
    in.read();
    words.emplace_back(in.word());
  } while (!in.eof());
  return words;
}

// What a loop of readUntilTrigger() hands out, each word with the end-of-file
// state after it.
template <class Reader>
std::vector<std::string> triggerWords(Reader& in) {
  std::vector<std::string> words;
  do {
    in.readUntilTrigger();
    words.push_back(std::string(in.word()) + (in.eof() ? "|eof" : ""));
  } while (!in.eof());
  return words;
}

template <class Collect>
std::vector<std::string> referenceOf(const std::string& text, const Collect& collect) {
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  StreamWordReader reference(stream);
  return collect(reference);
}

// A long text that fills the buffer: processor blocks up to `bytes`.
std::string longText(std::size_t bytes) {
  std::string text;
  for (int n = 0; text.size() < bytes; ++n)
    text += "processor\t: " + std::to_string(n) + "\ncore id\t\t: " + std::to_string(n % 8) +
            "\nflags\t\t: fpu vme de pse tsc msr pae mce cx8 apic sep mtrr\n\n";
  return text;
}

TEST(WordReaderBuffer, ANextReaderSeesOnlyItsOwnFile) {
  const TempFile big("buffer-big.cpuinfo", longText(WordReader::kDefaultBufferSize));
  const TempFile small("buffer-small.cpuinfo", "processor : 7");
  {
    WordReader in(big.path());
    EXPECT_GT(allWords(in).size(), 1000u);
  }
  // The small file's reader takes over the buffer that the big one filled.
  WordReader in(small.path());
  EXPECT_EQ(allWords(in), (std::vector<std::string>{"processor", ":", "7"}));
  WordReader again(small.path());
  std::vector<std::string> triggers = triggerWords(again);
  EXPECT_EQ(triggers, (std::vector<std::string>{"processor", "7|eof"}));
}

TEST(WordReaderBuffer, ReadersAliveTogetherKeepTheirOwnWords) {
  const std::string textA = longText(3000);
  const std::string textB = "cpu cores : 4\nphysical id : 1\n";
  const TempFile a("buffer-a.cpuinfo", textA);
  const TempFile b("buffer-b.cpuinfo", textB);
  WordReader first(a.path());
  WordReader second(b.path());
  std::vector<std::string> wordsA;
  std::vector<std::string> wordsB;
  // Turn about, so that each read of one comes between reads of the other.
  while (!first.eof() || !second.eof()) {
    if (!first.eof()) {
      first.read();
      wordsA.emplace_back(first.word());
    }
    if (!second.eof()) {
      second.read();
      wordsB.emplace_back(second.word());
    }
  }
  EXPECT_EQ(wordsA, referenceOf(textA, [](auto& r) { return allWords(r); }));
  // B ends with a newline: the last read finds no word, keeps "1" in hand and
  // sets end of file.
  EXPECT_EQ(wordsB,
            (std::vector<std::string>{"cpu", "cores", ":", "4", "physical", "id", ":", "1", "1"}));
  EXPECT_EQ(wordsB, referenceOf(textB, [](auto& r) { return allWords(r); }));
}

TEST(WordReaderBuffer, EachThreadKeepsItsOwnBuffer) {
  const std::string text = longText(20000);
  const TempFile file("buffer-threads.cpuinfo", text);
  const std::vector<std::string> expected = referenceOf(text, [](auto& r) { return allWords(r); });
  std::vector<std::vector<std::string>> seen(4);
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 3; ++round) {
        WordReader in(file.path());
        seen[t] = allWords(in);
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  for (const auto& words : seen)
    EXPECT_EQ(words, expected);
}

// Trigger words at every place relative to the searches' 64-byte groups and
// to the end of the text: each run of padding shifts what follows by one
// byte, and each text ends with a trigger word cut short or whole.
std::vector<std::string> searchTexts() {
  const char* const endings[] = {"",     "p",    "pro",     "processo",   "processor", "cpu",
                                 "cpu ", "core", "physica", "physical\n", "cpuid",     "cores"};
  std::vector<std::string> texts;
  for (const char* ending : endings) {
    std::string text;
    for (int pad = 0; pad < 70; ++pad) {
      text += std::string(static_cast<std::size_t>(pad), pad % 3 == 0 ? ' ' : 'x');
      text += pad % 2 == 0 ? "\nprocessor\t: " : "\tcpu cores : ";
      text += std::to_string(pad);
      text += pad % 5 == 0 ? " physical, cpuid constant_tsc core\vid :" : " core id\f: 1\r";
    }
    texts.push_back(text + ending);
  }
  return texts;
}

TEST(WordReaderSearch, EveryWidthFindsTheTriggerWordsOfStreamExtraction) {
  const std::vector<std::string> texts = searchTexts();
  for (int widest = 0; widest <= 2; ++widest) {
    xrprocdetector::detail::limitSearchForTesting(widest);
    for (const std::string& text : texts) {
      const auto expected = referenceOf(text, [](auto& r) { return triggerWords(r); });
      ASSERT_GT(expected.size(), 100u);
      WordReader fromText{std::string_view(text)};
      EXPECT_EQ(triggerWords(fromText), expected) << "search " << widest;
      const TempFile file("search.cpuinfo", text);
      for (std::size_t bufferSize :
           {std::size_t{7}, std::size_t{100}, std::size_t{4096}, WordReader::kDefaultBufferSize}) {
        WordReader fromFile(file.path(), bufferSize);
        EXPECT_EQ(triggerWords(fromFile), expected)
            << "search " << widest << ", buffer " << bufferSize;
      }
    }
  }
  xrprocdetector::detail::limitSearchForTesting(2);
}

}  // namespace
