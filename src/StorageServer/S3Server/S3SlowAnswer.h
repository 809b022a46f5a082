#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SLOW_ANSWER_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SLOW_ANSWER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Request.h"
#include "TansyBase/Noncopyable.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

// The answer to a request that may take long. Clients give a server up that says nothing for a minute, and ask again
// while it still works. So after some seconds this sends the head of a success and from then on a blank now and then,
// which XML allows in front of the document; whether the request succeeded is then said by the document alone, as
// clients expect it of copies. The length is announced with the head, so the rest is filled with line ends.
// One thread uses an object.
class CSlowAnswer : private TansyBase::CNoncopyable {
 public:
  explicit CSlowAnswer(Recipient to);

  // To be called every second or so while the work goes on. Returns false when the client is gone.
  bool GoOn();
  // One of these ends the answer.
  void SendXml(const std::string& xml);
  void SendFailure(const Failure& failure);

 private:
  void SendRest(const std::string& xml);
  bool SendBytes(std::string_view bytes);

  const Recipient to_;
  std::int64_t last_sign_;  // by TimeUtil::Uptime
  bool has_begun_ = false;
  TansyNet::HttpResponse response_;
  std::size_t sent_ = 0;  // of the body
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_SLOW_ANSWER_H
