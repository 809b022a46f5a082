#include "TansyNet/HttpClient.h"

#include <cstdint>
#include <new>
#include <span>
#include <string>
#include <system_error>
#include <utility>

#include "TansyNet/client/BodySink.h"
#include "TansyNet/client/ClientTlsContext.h"
#include "TansyNet/client/ConnectionPool.h"
#include "TansyNet/client/Exchange.h"

namespace TansyNet {

namespace {

HttpClient::Error OutOfMemory() {
  return {HttpClient::kTooLarge, static_cast<std::int32_t>(std::errc::not_enough_memory)};
}

// Holds the observer; it is null while there is none.
HttpClient::Observer& TheObserver() {
  static HttpClient::Observer observer;
  return observer;
}

// Holds the pace; it is null while there is none.
HttpClient::Pace& ThePace() {
  static HttpClient::Pace pace;
  return pace;
}

// Tells the pace what has come, and hands everything on.
class CPacedSink : public details::IBodySink {
 public:
  CPacedSink(details::IBodySink& sink, const HttpClient::Pace& pace) : sink_(sink), pace_(pace) {}

  bool Begin(std::uint64_t declared) override { return sink_.Begin(declared); }
  std::span<char> Window() override { return sink_.Window(); }
  bool Filled(std::size_t bytes) override {
    if (pace_) {
      pace_(bytes);
    }
    return sink_.Filled(bytes);
  }
  std::uint64_t Size() const override { return sink_.Size(); }

 private:
  details::IBodySink& sink_;
  const HttpClient::Pace& pace_;
};

// Runs an exchange and tells the observer about it.
bool RunObserved(details::CExchange& exchange, const CHttpClientRequest& request, const CHttpClientResponse& response,
                 HttpClient::Error& error) {
  const HttpClient::Observer& observer = TheObserver();
  if (observer) {
    observer(request, nullptr, {});
  }
  const bool complete = exchange.Run(error);
  if (observer) {
    observer(request, &response, error);
  }
  return complete;
}

bool SendInMemory(const CHttpClientRequest& request, CHttpClientResponse& response, HttpClient::Error& error) {
  details::CStringSink sink(response.body, request.max_body_bytes);
  CPacedSink paced(sink, ThePace());
  details::CExchange exchange(request, response, paced, ThePace());
  const bool complete = RunObserved(exchange, request, response, error);
  sink.Finish();
  return complete;
}

}  // namespace

bool HttpClient::Send(const CHttpClientRequest& request, CHttpClientResponse* response, Error* error) {
  CHttpClientResponse own_response;
  Error own_error;
  CHttpClientResponse& answer = response != nullptr ? *response : own_response;
  Error& failure = error != nullptr ? *error : own_error;
  answer = {};
  failure = {};
  try {
    return SendInMemory(request, answer, failure);
  } catch (const std::bad_alloc&) {
    failure = OutOfMemory();
  }
  return false;
}

bool HttpClient::SendForBigRsp(const CHttpClientRequest& request, const BigCallback& callback) {
  CHttpClientResponse response;
  details::CPieceSink sink(response, callback);
  CPacedSink paced(sink, ThePace());
  details::CExchange exchange(request, response, paced, ThePace());
  Error error;
  const bool complete = RunObserved(exchange, request, response, error);
  sink.Finish(error);
  return complete;
}

std::string HttpClient::ErrorText(const Error& error) {
  return ClientErrorText(error);
}

void HttpClient::SetTlsTrust(const TlsTrust& trust) {
  details::SetClientTrust(trust);
  details::CConnectionPool::Instance().Clear();
}

void HttpClient::SetObserver(Observer observer) {
  TheObserver() = std::move(observer);
}

void HttpClient::SetPace(Pace pace) {
  ThePace() = std::move(pace);
}

void HttpClient::CloseIdleConnections() {
  details::CConnectionPool::Instance().Clear();
}

}  // namespace TansyNet
