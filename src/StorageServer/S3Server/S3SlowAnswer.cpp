#include "StorageServer/S3Server/S3SlowAnswer.h"

#include <utility>

#include "StorageServer/S3Server/S3Server.h"
#include "StorageServer/S3Server/S3Text.h"
#include "StorageServer/S3Server/S3XmlWriter.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage::S3 {

namespace {

// Between two signs of life.
constexpr std::int64_t kQuietSeconds = 10;
// Room for the longest document, which repeats a path of percent-encoded bytes, and for the blanks of a day.
constexpr std::size_t kBodyBytes = std::size_t{32} * 1024;

// What each document begins with.
std::string Declaration() {
  return CXmlWriter().Take();
}

}  // namespace

CSlowAnswer::CSlowAnswer(Recipient to) : to_(std::move(to)), last_sign_(TansyBase::TimeUtil::Uptime()) {}

bool CSlowAnswer::GoOn() {
  if (!TansyNet::CHttpServer::IsRequestOpen(to_.handle)) {
    return false;
  }
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  if (now - last_sign_ < kQuietSeconds) {
    return true;
  }
  last_sign_ = now;
  if (has_begun_) {
    return SendBytes(" ");
  }
  has_begun_ = true;
  response_ = MakeXmlResponse(to_, 200);
  return SendBytes(Declaration());
}

void CSlowAnswer::SendXml(const std::string& xml) {
  if (has_begun_) {
    SendRest(xml);
  } else {
    AnswerXml(to_, xml);
  }
}

void CSlowAnswer::SendFailure(const Failure& failure) {
  if (has_begun_) {
    LogFailure(to_, failure);
    SendRest(ErrorXml(failure, PercentDecode(to_.url), to_.id));
  } else {
    AnswerFailure(to_, failure);
  }
}

void CSlowAnswer::SendRest(const std::string& xml) {
  std::string rest = xml.substr(Declaration().size());
  if (sent_ + rest.size() > kBodyBytes) {
    CS3Server::Instance().EndRequest(to_.handle, EError::kInternalError);  // closes the connection
    return;
  }
  rest.append(kBodyBytes - sent_ - rest.size(), '\n');
  SendBytes(rest);
}

bool CSlowAnswer::SendBytes(std::string_view bytes) {
  sent_ += bytes.size();
  return TansyNet::CHttpServer::HttpServerSyncSendBigRsp(
             to_.handle, response_, static_cast<std::uint32_t>(bytes.size()), bytes.data(), kBodyBytes) == 0;
}

}  // namespace Tansy::CloudStorage::S3
