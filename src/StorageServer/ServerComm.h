// Helpers of the two servers: query text, the check of signatures, the headers of answers. It includes Common/, which
// holds what the clients need too. Threads: all may be called from any thread; nothing throws.
#ifndef TANSY_SRC_STORAGE_SERVER_SERVER_COMM_H
#define TANSY_SRC_STORAGE_SERVER_SERVER_COMM_H

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "Common/HttpDate.h"
#include "Common/Signature.h"

namespace TansyNet {
struct HttpResponse;
}

namespace Tansy::CloudStorage {

// Decodes percent-encoded query text: "+" becomes a blank, "%XX" its byte, except that escaped letters and digits stay
// escaped. Returns false when `output_size` is less than `input_length`.
// Fixed: docs/compatibility.md, "Paths and queries".
bool UrlQueryDecode(char* output, std::int32_t output_size, const char* input, std::int32_t input_length);
// Gives the decoded text, or the text itself when it cannot be decoded.
std::string DecodeHttpUrlQuery(const std::string& text);
// Splits "a=1&b=2" into `values`; pieces without "=" are skipped, and a later key overwrites an earlier one. Always
// returns 0.
std::int32_t ParseHttpUrlQuery(std::map<std::string, std::string>& values, const std::string& query);

// Gives a short text that differs for different texts: hexadecimal digits that do not show what they were made of. It
// is empty when the library refuses.
std::string Fingerprint(std::string_view text);
// Returns true when `signature` is that of `text` under `sk`, byte for byte; the comparison takes constant time.
bool CheckHMACResult(const std::string& text, const std::string& sk, const std::string& signature);

// Gives an answer its content type and its date; every answer has both.
void SetRspHeaders(TansyNet::HttpResponse& response, const char* content_type);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_SERVER_COMM_H
