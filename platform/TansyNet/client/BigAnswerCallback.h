// The function that takes the body of an answer piece by piece.
#ifndef TANSY_NET_CLIENT_BIG_ANSWER_CALLBACK_H
#define TANSY_NET_CLIENT_BIG_ANSWER_CALLBACK_H

#include <functional>

#include "TansyNet/client/ClientError.h"
#include "TansyNet/wire/ClientMessages.h"

namespace TansyNet {

// See HttpClient::SendForBigRsp.
using BigAnswerCallback = std::function<void(const CHttpClientResponse& response, const char* data, unsigned int size,
                                             ClientError error, bool last)>;

}  // namespace TansyNet

#endif  // TANSY_NET_CLIENT_BIG_ANSWER_CALLBACK_H
