// The load program of the benchmarks, for what wrk cannot do: large bodies, each request once, uploads in parts,
// connections that stand still. It also makes the files of signed requests that wrk sends.
#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "Commands.h"
#include "Content.h"
#include "Requests.h"

namespace TansyBench {
namespace {

constexpr char kUsage[] =
    "usage: tansy_load sign header|link|picture-link|form|s3 [HOST]           lines METHOD PATH on standard input\n"
    "       tansy_load content PATH BYTES                                     the content of an object\n"
    "       tansy_load run URL REQUESTS CONNECTIONS BYTES [SECONDS|once|verify [BODY_FILE]]\n"
    "       tansy_load multipart URL PATH BYTES PART_BYTES CONNECTIONS\n"
    "       tansy_load digest BYTES                                           microseconds for the MD5 digest of so "
    "much\n"
    "       tansy_load hold URL REQUESTS IDLE HEADS BODIES READERS            until standard input ends\n";

unsigned Number(const std::string& text) {
  return static_cast<unsigned>(std::stoul(text));
}

void WriteContent(const std::string& path, std::uint64_t size) {
  const CContent content(path);
  for (std::uint64_t done = 0; done < size;) {
    const std::string_view piece = content.At(done, size - done);
    std::cout.write(piece.data(), static_cast<std::streamsize>(piece.size()));
    done += piece.size();
  }
}

std::string ReadFile(const std::string& name) {
  std::ifstream input(name, std::ios::binary);
  std::string bytes{std::istreambuf_iterator<char>(input), {}};
  if (!input || bytes.empty()) {
    throw std::runtime_error("cannot read " + name);
  }
  return bytes;
}

RunOptions ParseRun(const std::vector<std::string>& words) {
  RunOptions options;
  options.url = words[1];
  options.requests = words[2];
  options.connections = Number(words[3]);
  options.size = std::stoull(words[4]);
  const std::string how = words.size() > 5 ? words[5] : "once";
  options.verify = how == "verify";
  options.seconds = how == "once" || how == "verify" ? 0 : std::stod(how);
  if (words.size() > 6) {
    options.body = ReadFile(words[6]);
    options.size = options.body.size();
  }
  return options;
}

// Returns false when the words are no command.
bool Run(const std::vector<std::string>& words) {
  const std::string command = words.empty() ? "" : words[0];
  if (command == "sign" && (words.size() == 2 || words.size() == 3)) {
    std::ios::sync_with_stdio(false);
    WriteSigned(std::cin, ParseSignature(words[1]), std::cout, words.size() == 3 ? words[2] : "");
  } else if (command == "content" && words.size() == 3) {
    WriteContent(words[1], std::stoull(words[2]));
  } else if (command == "run" && words.size() >= 5 && words.size() <= 7) {
    RunRequests(ParseRun(words));
  } else if (command == "multipart" && words.size() == 6) {
    RunMultipart({words[1], words[2], std::stoull(words[3]), std::stoull(words[4]), Number(words[5])});
  } else if (command == "digest" && words.size() == 2) {
    RunDigest(std::stoull(words[1]));
  } else if (command == "hold" && words.size() == 7) {
    RunHold({words[1], words[2], Number(words[3]), Number(words[4]), Number(words[5]), Number(words[6])});
  } else {
    return false;
  }
  return true;
}

// Many connections are many descriptors; the usual limit of 1024 is not enough.
void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace
}  // namespace TansyBench

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  TansyBench::RaiseDescriptorLimit();
  try {
    if (!TansyBench::Run({argv + 1, argv + argc})) {
      std::fputs(TansyBench::kUsage, stderr);
      return 2;
    }
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "tansy_load: %s\n", failure.what());
    return 1;
  }
  return 0;
}
