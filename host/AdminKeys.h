#ifndef TANSY_HOST_ADMIN_KEYS_H
#define TANSY_HOST_ADMIN_KEYS_H

#include <cstdint>
#include <memory>

#include "Keys.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::Host {

// Answers requests of the admin listener about the further keys, on the thread of `keys`, as JSON:
//   GET    /admin/keys       {"keys":[{"name","access_key","buckets":[],"read_only","created","expires","is_usable"}]}
//   POST   /admin/keys       {"name","buckets":[],"read_only","expires"} makes a key: the answer has "secret_key", too.
//                            A member that has another name or type is refused.
//   DELETE /admin/keys/NAME  {"name","removed":true}
// Times are seconds since 1970, 0 for none. Failures: {"error": what to do}, with 400, 404, 405, 409, 500 or 503.
// Returns false, and does nothing, for a request about something else.
bool TakeKeyRequest(const std::shared_ptr<CKeys>& keys, std::int32_t handle, const TansyNet::HttpServerRecv& message);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_ADMIN_KEYS_H
