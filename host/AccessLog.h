#ifndef TANSY_HOST_ACCESS_LOG_H
#define TANSY_HOST_ACCESS_LOG_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "TansyNet/RequestWatch.h"

namespace Tansy::Host {

enum class EAccessLogFormat {
  kCombined,  // as web servers write it, and behind that the request's id, operation and times
  kJson,      // one JSON object per line
};

// Gives the line of a request, which ended at `time` (seconds since 1970). What signs a link is cut out of its query.
std::string AccessLine(EAccessLogFormat format, const TansyNet::FinishedRequest& request, std::int64_t time);

// Gives a query without the values that could be used again: signatures and tokens.
std::string HarmlessQuery(std::string_view query);

// Writes a line for each request that ends, on a thread of its own, so that no request waits for a disk. When the disk
// is too slow for thousands of lines, the oldest are dropped and counted. There is one per process. Threads: any.
class CAccessLog {
 public:
  // `file` is a path, or "-" for standard output. Throws CStartFailure.
  CAccessLog(const std::string& file, EAccessLogFormat format);
  // Writes what waits.
  ~CAccessLog();
  CAccessLog(const CAccessLog&) = delete;
  CAccessLog& operator=(const CAccessLog&) = delete;

  // Opens the file again under its name. Returns why that failed, and the old file stays in use; empty: it did not.
  std::string Reopen();
  std::uint64_t DroppedLines() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ACCESS_LOG_H
