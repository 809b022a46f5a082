// The commands of the load program, one source file each.
#ifndef TANSY_BENCH_COMMANDS_H
#define TANSY_BENCH_COMMANDS_H

#include <cstdint>
#include <string>

namespace TansyBench {

struct RunOptions {
  std::string url;
  std::string requests;  // file of requests
  unsigned connections = 1;
  std::uint64_t size = 0;  // bytes of each body: those to send, or those that a GET must bring
  double seconds = 0;      // 0: each request of the file once; else the file over and over, for so long
  bool verify = false;     // compare each byte that comes
  std::string body;        // the bytes of each body to send, in place of those that belong to the path
};

// Sends requests on some connections, each with a thread of its own. Bodies are those of CContent, unless one is given.
void RunRequests(const RunOptions& options);

struct MultipartOptions {
  std::string url;
  std::string path;
  std::uint64_t size = 0;
  std::uint64_t part_size = 0;
  unsigned connections = 1;
};

// Uploads one object in parts. The figures are those of one request.
void RunMultipart(const MultipartOptions& options);

struct HoldOptions {
  std::string url;
  std::string requests;  // file of three requests: a GET, a PUT, and a GET of something large
  unsigned idle = 0;     // connections that have had one answer and ask nothing more
  unsigned heads = 0;    // connections that stopped in the middle of a request's head
  unsigned bodies = 0;   // connections that stopped in the middle of a PUT's body
  unsigned readers = 0;  // connections that do not read their answer
};

// Opens the connections, prints "holding N" and keeps them until standard input ends. Throws when the server has closed
// one of them by then.
void RunHold(const HoldOptions& options);

// Prints how many microseconds the MD5 digest of so many bytes takes on one processor.
void RunDigest(std::uint64_t size);

}  // namespace TansyBench

#endif  // TANSY_BENCH_COMMANDS_H
