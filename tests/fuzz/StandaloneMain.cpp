// Runs a fuzz target without libFuzzer: every file of a corpus, then seeded mutations of them.
//
// usage: Fuzz<Name> CORPUS-FOLDER [MUTATIONS [SEED]]           default: 3000 mutations, seed 1
//        Fuzz<Name> FILE                                       one input
//        Fuzz<Name> --find CORPUS-FOLDER [MUTATIONS [SEED]]    default: 100000 mutations, seed 1
//
// With --find there must be something to find: the program ends with 0 as soon as an input breaks a promise, and with 1
// when none does.
//
// Before an input is tried it is written to "<program>.last" in the current folder, so that the one that brings the
// program down is there to be tried again.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLongest = 64 * 1024;

std::string ReadFile(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

std::vector<std::string> ReadCorpus(const fs::path& folder) {
  std::vector<fs::path> paths;
  for (const auto& entry : fs::directory_iterator(folder)) {
    paths.push_back(entry.path());
  }
  // The same order everywhere: a seed means the same mutations on every machine.
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> inputs;
  for (const auto& path : paths) {
    inputs.push_back(ReadFile(path));
  }
  return inputs;
}

// Keeps the input under way in a file. The file is overwritten in place: some file systems wait for the disk when one
// is emptied and closed again, thousands of times here.
class CLastInput {
 public:
  explicit CLastInput(fs::path path) : path_(std::move(path)), stream_(path_, std::ios::binary | std::ios::trunc) {}

  void Keep(const std::string& input) {
    stream_.seekp(0);
    stream_ << input << std::flush;
    fs::resize_file(path_, input.size());
  }
  void Remove() {
    stream_.close();
    fs::remove(path_);
  }

 private:
  const fs::path path_;
  std::ofstream stream_;
};

void Try(const std::string& input, CLastInput& last) {
  last.Keep(input);
  // A copy of its own on the heap, so that a sanitizer sees every byte read beyond it.
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

class CMutator {
 public:
  CMutator(const std::vector<std::string>& corpus, std::uint32_t seed) : corpus_(corpus), random_(seed) {}

  std::string Make() {
    std::string input = Pick();
    for (std::size_t i = 1 + Below(4); i > 0; --i) {
      Mutate(input);
    }
    input.resize(std::min(input.size(), kLongest));
    return input;
  }

 private:
  std::size_t Below(std::size_t end) { return end == 0 ? 0 : random_() % end; }
  const std::string& Pick() { return corpus_[Below(corpus_.size())]; }
  std::string Slice(const std::string& text) { return text.substr(Below(text.size() + 1), Below(32)); }

  void Mutate(std::string& input) {
    const std::size_t at = Below(input.size() + 1);
    switch (Below(7)) {
      case 0:
        input.insert(at, 1, static_cast<char>(random_()));
        break;
      case 1:
        input.insert(at, Slice(input));
        break;
      case 2:
        input.insert(at, Slice(Pick()));
        break;
      case 3:
        input.erase(at, 1 + Below(8));
        break;
      case 4:
        input.erase(at);
        break;
      case 5:
        input.insert(at, std::string(1 + Below(200), at < input.size() ? input[at] : '0'));
        break;
      default:
        if (at < input.size()) {
          input[at] = static_cast<char>(input[at] ^ (1 << Below(8)));
        }
    }
  }

  const std::vector<std::string>& corpus_;
  std::mt19937 random_;
};

// What a broken promise comes to with --find. Only calls that a signal handler may make are made.
extern "C" void OnBrokenPromise(int /*signal*/) {
  constexpr char kText[] = "found\n";
  static_cast<void>(!::write(STDOUT_FILENO, kText, sizeof kText - 1));
  ::_exit(0);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string program = fs::path(argv[0]).filename().string();
  const bool must_find = argc > 2 && std::string(argv[1]) == "--find";
  if (must_find) {
    std::signal(SIGABRT, &OnBrokenPromise);
    ++argv;
    --argc;
  }
  if (argc < 2) {
    std::cerr << "usage: " << program << " [--find] CORPUS-FOLDER [MUTATIONS [SEED]] | FILE\n";
    return 2;
  }
  if (!fs::is_directory(argv[1])) {
    const std::string input = ReadFile(argv[1]);
    const std::vector<std::uint8_t> bytes(input.begin(), input.end());
    return LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  }
  const std::vector<std::string> corpus = ReadCorpus(argv[1]);
  if (corpus.empty()) {
    std::cerr << "no inputs in " << argv[1] << '\n';
    return 1;
  }
  const unsigned long mutations = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : must_find ? 100000 : 3000;
  const auto seed = static_cast<std::uint32_t>(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 1);
  std::cout << corpus.size() << " inputs, " << mutations << " mutations, seed " << seed << std::endl;
  CLastInput last(program + ".last");
  for (const auto& input : corpus) {
    Try(input, last);
  }
  Try({}, last);
  CMutator mutator(corpus, seed);
  for (unsigned long i = 0; i < mutations; ++i) {
    Try(mutator.Make(), last);
  }
  last.Remove();
  return must_find ? 1 : 0;
}
