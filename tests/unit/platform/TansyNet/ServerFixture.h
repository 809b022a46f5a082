// A running HTTP server whose requests go to a function of the test.
#ifndef TANSY_TESTS_SERVER_FIXTURE_H
#define TANSY_TESTS_SERVER_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "TansyNet/HttpServer.h"

namespace Tansy::Tests {

// A port that nobody listens on, neither on IPv4 nor on IPv6.
std::uint16_t FreePort();

// Waits until `condition` holds; false after about ten seconds.
bool Eventually(const std::function<bool()>& condition);

// Sends a plain 200 with this body.
int AnswerText(std::int32_t handle, std::string_view body);

// One delivery as the callback got it.
struct Delivery {
  std::int32_t handle = 0;
  TansyNet::HttpServerRecv message;

  std::string Body() const { return message.body == nullptr ? std::string() : *message.body; }
};

// Shuts the library down and restores the limits when it ends.
class ServerFixture : public ::testing::Test {
 protected:
  using Handler = std::function<void(std::int32_t handle, TansyNet::HttpServerRecv& message)>;

  ServerFixture();
  ~ServerFixture() override;

  // Listens on 127.0.0.1; without a handler, requests wait to be taken.
  void Start(Handler handler = {});
  void StartTls(const TansyNet::HttpsServer& tls, Handler handler = {});
  void SetHandler(Handler handler);
  std::uint16_t Port() const { return port_; }
  std::int32_t ListenerHandle() const { return listener_; }

  // The next delivery that came without a handler; throws after some time without one.
  Delivery Take();
  // The same without waiting; false when there is none.
  bool TryTake(Delivery& delivery);
  bool HasDelivery() const;

  // The callback that feeds the handler and Take.
  static void OnRequest(std::int32_t handle, TansyNet::HttpServerRecv& message);

  // Of listeners that are started from now on.
  TansyNet::ListenerStyle style_;

 private:
  struct Shared;
  static Shared& State();

  std::uint16_t port_ = 0;
  std::int32_t listener_ = 0;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_SERVER_FIXTURE_H
