#include "Exchange.h"

#include "TansyProto/XmlProto.h"

namespace Tansy::Cli {
namespace details {
namespace {

constexpr int kInsufficientStorage = 507;
constexpr std::size_t kMaxErrorBytes = std::size_t{64} << 10;

}  // namespace
}  // namespace details

std::string LinkOutcome::ErrorCode() const {
  TansyProto::CXmlProto xml;
  return xml.Parse(answer.body) ? xml.GetString("/Error/Code") : "";
}

bool MeansFullServer(int status, const std::string& error_code) {
  return status == details::kInsufficientStorage || error_code == "NotEnoughSpace";
}

LinkOutcome StreamAnswer(const TansyNet::CHttpClientRequest& request, IsSuccess is_success, const TakeHead& head,
                         const TakeBytes& take) {
  LinkOutcome outcome;
  bool begun = false;
  TansyNet::HttpClient().SendForBigRsp(
      request, [&](const TansyNet::CHttpClientResponse& answer, const char* data, unsigned int size,
                   TansyNet::HttpClient::Error error, bool /*last*/) {
        outcome.error = error;
        if (answer.status != 0 && !begun) {
          begun = true;
          outcome.answer = answer;
          if (is_success(answer.status)) {
            head(answer);
          }
        }
        if (size == 0) {
          return;
        }
        if (is_success(answer.status)) {
          take(data, size);
        } else if (outcome.answer.body.size() < details::kMaxErrorBytes) {
          outcome.answer.body.append(data, size);
        }
      });
  return outcome;
}

}  // namespace Tansy::Cli
