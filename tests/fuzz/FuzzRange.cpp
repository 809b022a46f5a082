// Range headers as clients send them.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Require.h"
#include "StorageServer/ObjectServer/ObjectServer.h"

namespace {

using Tansy::CloudStorage::ByteRange;
using Tansy::CloudStorage::CObjectServer;

// A plain range must come out as it went in.
void CheckPlainRange(std::uint32_t begin, std::uint32_t end) {
  TansyNet::HttpServerRecv request;
  request.headers["Range"] = "bytes=" + std::to_string(begin) + "-" + std::to_string(end);
  ByteRange range;
  const bool sensible = end == 0 || end > begin;
  Require((CObjectServer::ParseRangeHeader(request, range) == 0) == sensible);
  Require(range.begin == begin && range.end == end);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  TansyNet::HttpServerRecv request;
  const std::string value(data, data + size);
  request.headers["Range"] = value;
  ByteRange range;
  const int result = CObjectServer::ParseRangeHeader(request, range);
  Require(result == 0 || result == Tansy::CloudStorage::kInvalidHttpContent);
  if (result == 0) {
    Require(range.end == 0 || range.end > range.begin);
    const std::size_t equals = value.find('=');
    Require(equals != std::string::npos && value.find('-', equals + 2) != std::string::npos);
    CheckPlainRange(range.begin, range.end);
  }
  CheckPlainRange(range.end, range.begin);
  return 0;
}
