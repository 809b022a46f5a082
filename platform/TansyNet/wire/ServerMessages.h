// The messages of a server: the request that it is given and the answer that it sends.
#ifndef TANSY_NET_WIRE_SERVER_MESSAGES_H
#define TANSY_NET_WIRE_SERVER_MESSAGES_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "TansyNet/wire/Headers.h"
#include "TansyNet/wire/MultipartForm.h"
#include "TansyNet/wire/RequestNote.h"

namespace TansyNet {

// Delivery states of a request.
inline constexpr std::int32_t kWholeRequest = 0;
inline constexpr std::int32_t kBodyPiece = -1;      // more pieces follow
inline constexpr std::int32_t kLastBodyPiece = -2;  // the last piece

// A PUT body up to this size is delivered whole, a larger one in pieces of at most this size.
inline constexpr std::uint32_t kWholeBodyLimit = 10485760;

// A delivered request, or one piece of it. Copying it copies pointers, never bytes.
struct HttpServerRecv {
  std::int32_t error_code = kWholeRequest;
  std::string method;
  std::string url;                          // path, as sent, without the query
  std::string query;                        // as sent, without the "?"
  std::string ip;                           // peer address
  std::shared_ptr<const std::string> body;  // bytes of this delivery, immutable; null when there are none
  std::uint32_t body_size = 0;              // bytes of this delivery
  std::uint32_t content_length = 0;         // declared length of the whole body; 0 when it is not known
  Headers headers;
  // Ensures one piece at a time: the next piece of this request is delivered when the last copy of this token is gone.
  // Code that keeps a delivery, or a copy of its bytes that is not stored yet, keeps the token too. It is null for
  // whole requests.
  std::shared_ptr<const void> token;
  // Where the handler says what the request is about, for those who watch the server; null when nobody asks.
  std::shared_ptr<RequestNote> note;

  // Gives the bytes of this delivery to be changed; null when there are none. When somebody else has them too, this
  // message gets a copy of its own first, for which no memory is claimed.
  std::string* OwnBody();

  // Gives the fields of a whole multipart/form-data body, in order; they live as long as the body. Each call parses the
  // body, which takes time for a large one, so call it only once the sender is known.
  std::vector<FormPart> FormParts() const;
};

// An answer without its body.
struct HttpResponse {
  std::int32_t status = 200;
  std::int32_t send_timeout_ms = 20000;  // a client that takes nothing for this long is disconnected
  std::int32_t close_connection = 0;     // not 0: the connection is closed after the answer
  std::string content_type = "application/xml; charset=\"UTF-8\"";
  std::string content_encoding;
  std::string location;
  std::string cache_control = "no-cache";
  Headers headers;  // sent as they are, after those above
};

}  // namespace TansyNet

#endif  // TANSY_NET_WIRE_SERVER_MESSAGES_H
