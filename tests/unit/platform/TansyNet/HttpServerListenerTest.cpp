// Starting and stopping listeners.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RawClient.h"
#include "ServerFixture.h"
#include "TansyNet/HttpServer.h"
#include "fakes/CapturingLogSink.h"
#include "fakes/Ipv6Loopback.h"

namespace {

std::atomic<bool> g_has_ipv6{true};

}  // namespace

// This program uses this function instead of the system's, so that a test can play a machine without IPv6.
int socket(int domain, int type, int protocol) noexcept {
  static const auto system_socket = reinterpret_cast<int (*)(int, int, int)>(dlsym(RTLD_NEXT, "socket"));
  if (domain == AF_INET6 && !g_has_ipv6) {
    errno = EAFNOSUPPORT;
    return -1;
  }
  return system_socket(domain, type, protocol);
}

namespace {

using Tansy::Tests::AnswerText;
using Tansy::Tests::CRawClient;
using Tansy::Tests::Delivery;
using Tansy::Tests::Eventually;
using Tansy::Tests::FreePort;
using Tansy::Tests::ServerFixture;
using TansyNet::CHttpServer;
using TansyNet::HttpServerRecv;

class HttpServerListener : public ServerFixture {
 protected:
  static bool CanConnect(std::uint16_t port, bool ipv6 = false) {
    try {
      const CRawClient client(port, {.ipv6 = ipv6, .receive_buffer = 0});
      return true;
    } catch (const std::runtime_error&) {
      return false;
    }
  }
};

TEST_F(HttpServerListener, OnPortZeroIsNone) {
  std::int32_t handle = 77;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "0.0.0.0", 0, OnRequest, true), 0);
  EXPECT_EQ(handle, 0);
  EXPECT_EQ(CHttpServer::StartHttpsServer(handle, "::", 0, {}, OnRequest), 0);
  EXPECT_EQ(handle, 0);
  EXPECT_EQ(CHttpServer::StopServer(0), 0);
  EXPECT_EQ(CHttpServer::StopServer(0), 0);
}

TEST_F(HttpServerListener, OfBothFamiliesShareAPort) {
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  SetHandler([](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, message.ip); });
  const std::uint16_t port = FreePort();
  std::int32_t four = 0;
  std::int32_t six = 0;
  ASSERT_EQ(CHttpServer::StartHttpServer(four, "0.0.0.0", port, OnRequest, true), 0);
  ASSERT_EQ(CHttpServer::StartHttpServer(six, "::", port, OnRequest, true), 0) << CHttpServer::LastError();
  EXPECT_NE(four, six);
  CRawClient client4(port);
  client4.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client4.ReadReply().body, "127.0.0.1");
  CRawClient client6(port, {.ipv6 = true, .receive_buffer = 0});
  client6.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client6.ReadReply().body, "::1");
  EXPECT_EQ(CHttpServer::StopServer(six), 0);
  EXPECT_TRUE(CanConnect(port));
  EXPECT_FALSE(CanConnect(port, true));
}

TEST_F(HttpServerListener, ChildProcessesGetNoSockets) {
  Start([](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, message.ip); });
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "127.0.0.1");
  int found = 0;
  for (int descriptor = 3; descriptor < 4096; ++descriptor) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size) == 0 && ntohs(own.sin_port) == Port()) {
      ++found;
      EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << descriptor;
    }
  }
  EXPECT_EQ(found, 2) << "the listening socket and the accepted one";
}

// A socket that somebody else has opened, as a service manager does.
int OpenListening(std::uint16_t& port, int family = AF_INET, int type = SOCK_STREAM) {
  const int opened = ::socket(family, type | SOCK_CLOEXEC, 0);
  sockaddr_storage address{};
  socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
  address.ss_family = static_cast<sa_family_t>(family);
  if (family == AF_INET) {
    reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  EXPECT_EQ(::bind(opened, plain, size), 0);
  if (type == SOCK_STREAM) {
    EXPECT_EQ(::listen(opened, 1), 0);
  }
  EXPECT_EQ(::getsockname(opened, plain, &size), 0);
  port = ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
  return opened;
}

TEST_F(HttpServerListener, TakesOverASocketThatIsOpenAtItsAddress) {
  SetHandler([](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, message.ip); });
  std::uint16_t port = 0;
  ASSERT_EQ(CHttpServer::OfferSockets({OpenListening(port)}), "");
  const std::string name = "127.0.0.1 port " + std::to_string(port);
  EXPECT_EQ(CHttpServer::UnusedSockets(), std::vector<std::string>{name});
  for (int start = 0; start < 2; ++start) {  // the second time as after a stop
    CRawClient early(port);
    early.Send("GET / HTTP/1.1\r\n\r\n");
    std::int32_t handle = 0;
    ASSERT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", port, OnRequest, false), 0) << CHttpServer::LastError();
    EXPECT_EQ(early.ReadReply().body, "127.0.0.1") << "who comes before the start waits";
    EXPECT_EQ(CHttpServer::StopServer(handle), 0);
  }
  EXPECT_TRUE(CHttpServer::UnusedSockets().empty());
}

TEST_F(HttpServerListener, AnOfferedSocketOfAnotherAddressIsNotTaken) {
  SetHandler([](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, message.ip); });
  std::uint16_t port = 0;
  ASSERT_EQ(CHttpServer::OfferSockets({OpenListening(port)}), "");
  std::int32_t handle = 0;
  ASSERT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.2", port, OnRequest, true), 0) << CHttpServer::LastError();
  EXPECT_EQ(CHttpServer::UnusedSockets().size(), 1U);
  EXPECT_EQ(CHttpServer::StopServer(handle), 0);
}

TEST_F(HttpServerListener, RefusesOfferedSocketsThatItCannotServe) {
  EXPECT_NE(CHttpServer::OfferSockets({99999}), "") << "no socket";
  std::uint16_t port = 0;
  const int of_messages = OpenListening(port, AF_INET, SOCK_DGRAM);
  EXPECT_NE(CHttpServer::OfferSockets({of_messages}), "");
  ::close(of_messages);
  if (!Tansy::Tests::HasIpv6Loopback()) {
    GTEST_SKIP() << Tansy::Tests::kNoIpv6Loopback;
  }
  const int of_both_families = OpenListening(port, AF_INET6);
  EXPECT_EQ(CHttpServer::OfferSockets({of_both_families}),
            "the offered socket of :: port " + std::to_string(port) + " takes IPv4 too: offer one for each family");
  ::close(of_both_families);
}

TEST_F(HttpServerListener, SaysWhetherItsLoopsAnswer) {
  EXPECT_TRUE(CHttpServer::DoLoopsAnswer(std::chrono::milliseconds(0))) << "there are none";
  std::promise<void> release;
  Start([released = release.get_future().share()](std::int32_t handle, HttpServerRecv& /*message*/) {
    AnswerText(handle, "");
    released.wait();
  });
  constexpr std::chrono::seconds kLong{60};
  EXPECT_TRUE(CHttpServer::DoLoopsAnswer(kLong));
  // The threads of a loop stand in for each other, so that it takes several callbacks that do not return.
  std::vector<std::unique_ptr<CRawClient>> clients;
  for (unsigned i = 0; i < 4 * std::max(1U, std::thread::hardware_concurrency()); ++i) {
    clients.push_back(std::make_unique<CRawClient>(Port()));
    clients.back()->Send("GET / HTTP/1.1\r\n\r\n");
  }
  EXPECT_TRUE(Eventually([] { return !CHttpServer::DoLoopsAnswer(std::chrono::milliseconds(20)); }));
  release.set_value();
  EXPECT_TRUE(CHttpServer::DoLoopsAnswer(kLong));
}

// A host may listen on some of the machine's addresses only.
class CListenOn {
 public:
  explicit CListenOn(const std::vector<std::string>& addresses) { CHttpServer::SetListenAddresses(addresses); }
  ~CListenOn() { CHttpServer::SetListenAddresses({}); }
  CListenOn(const CListenOn&) = delete;
  CListenOn& operator=(const CListenOn&) = delete;
};

TEST_F(HttpServerListener, OnAllAddressesIsOnThoseOfTheHost) {
  const CListenOn listen_on({"127.0.0.2", "127.0.0.3"});
  const std::uint16_t port = FreePort();
  std::int32_t four = 0;
  std::int32_t six = 77;
  ASSERT_EQ(CHttpServer::StartHttpServer(four, "0.0.0.0", port, OnRequest, true), 0) << CHttpServer::LastError();
  ASSERT_EQ(CHttpServer::StartHttpServer(six, "::", port, OnRequest, true), 0);
  EXPECT_NE(four, 0);
  EXPECT_EQ(six, 0) << "none of the addresses is an IPv6 one";
  EXPECT_FALSE(CanConnect(port)) << "127.0.0.1 is not among them";
  EXPECT_FALSE(CanConnect(port, true));
  std::int32_t other = 0;
  for (const char* taken : {"127.0.0.2", "127.0.0.3"}) {
    EXPECT_EQ(CHttpServer::StartHttpServer(other, taken, port, OnRequest, true), TansyNet::kNetAddressInUse) << taken;
  }
  EXPECT_EQ(CHttpServer::StartHttpServer(other, "127.0.0.1", port, OnRequest, true), 0)
      << "a named address is that one";
  EXPECT_TRUE(CanConnect(port));
  EXPECT_EQ(CHttpServer::StopServer(other), 0);
  EXPECT_EQ(CHttpServer::StopServer(four), 0);
  for (const char* freed : {"127.0.0.2", "127.0.0.3"}) {
    EXPECT_EQ(CHttpServer::StartHttpServer(other, freed, port, OnRequest, true), 0) << freed << " is free again";
    EXPECT_EQ(CHttpServer::StopServer(other), 0);
  }
  EXPECT_EQ(CHttpServer::StopServer(four), TansyNet::kNetUnknownHandle);
}

TEST_F(HttpServerListener, OnSeveralAddressesIsOnAllOrNone) {
  const CListenOn listen_on({"127.0.0.2", "127.0.0.3"});
  const std::uint16_t port = FreePort();
  std::int32_t taken = 0;
  ASSERT_EQ(CHttpServer::StartHttpServer(taken, "127.0.0.3", port, OnRequest, true), 0);
  std::int32_t handle = 77;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "0.0.0.0", port, OnRequest, true), TansyNet::kNetAddressInUse);
  EXPECT_EQ(handle, 0);
  EXPECT_NE(CHttpServer::LastError().find("127.0.0.3"), std::string::npos) << CHttpServer::LastError();
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.2", port, OnRequest, true), 0) << "closed again";
}

TEST_F(HttpServerListener, OnATakenPortSaysSo) {
  Start();
  std::int32_t handle = 5;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", Port(), OnRequest, true), TansyNet::kNetAddressInUse);
  EXPECT_EQ(handle, 0);
  EXPECT_NE(CHttpServer::LastError().find(std::to_string(Port())), std::string::npos) << CHttpServer::LastError();
  EXPECT_EQ(CHttpServer::LastError().find('\n'), std::string::npos);
}

TEST_F(HttpServerListener, OnAnImpossibleAddressSaysSo) {
  std::int32_t handle = 0;
  for (const char* address : {"", "localhost", "256.1.1.1", "203.0.113.7"}) {
    EXPECT_EQ(CHttpServer::StartHttpServer(handle, address, FreePort(), OnRequest, true), TansyNet::kNetAddressInvalid)
        << address;
    EXPECT_NE(CHttpServer::LastError(), "") << address;
  }
}

TEST_F(HttpServerListener, OnAllAddressesOfAMachineWithoutIpv6IsNone) {
  SetHandler([](std::int32_t handle, HttpServerRecv& message) { AnswerText(handle, message.ip); });
  const Tansy::Tests::CLogCapture log;
  const std::uint16_t port = FreePort();
  std::int32_t four = 0;
  std::int32_t six = 77;
  g_has_ipv6 = false;
  EXPECT_EQ(CHttpServer::StartHttpServer(four, "0.0.0.0", port, OnRequest, true), 0);
  EXPECT_EQ(CHttpServer::StartHttpServer(six, "::", port, OnRequest, true), 0);
  EXPECT_EQ(six, 0);
  EXPECT_EQ(CHttpServer::LastError(), "");
  EXPECT_EQ(log->Count("[%s]no IPv6 here, %s[%s(%d)]", logging::kNotable), 1U);
  // Who names one address wants a listener on that address only.
  EXPECT_EQ(CHttpServer::StartHttpServer(six, "::1", port, OnRequest, true), TansyNet::kNetAddressInvalid);
  EXPECT_NE(CHttpServer::LastError().find("::1 port " + std::to_string(port)), std::string::npos)
      << CHttpServer::LastError();
  g_has_ipv6 = true;
  CRawClient client(port);
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "127.0.0.1");
  EXPECT_EQ(CHttpServer::StopServer(six), 0);
}

TEST_F(HttpServerListener, WithoutACallbackIsRefused) {
  std::int32_t handle = 0;
  EXPECT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", FreePort(), nullptr, true), TansyNet::kNetListenFailed);
}

TEST_F(HttpServerListener, ForgetsTheLastErrorWithTheNextStart) {
  std::int32_t handle = 0;
  EXPECT_NE(CHttpServer::StartHttpServer(handle, "", FreePort(), OnRequest, true), 0);
  Start();
  EXPECT_EQ(CHttpServer::LastError(), "");
}

// Leaves this process room for so many more descriptors until its end.
class CFewDescriptors {
 public:
  explicit CFewDescriptors(int more) {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit few = before_;
    few.rlim_cur = 0;
    for (int left = more; left >= 0; ++few.rlim_cur) {
      left -= ::fcntl(static_cast<int>(few.rlim_cur), F_GETFD) < 0 ? 1 : 0;
    }
    --few.rlim_cur;
    ::setrlimit(RLIMIT_NOFILE, &few);
  }
  ~CFewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
  CFewDescriptors(const CFewDescriptors&) = delete;
  CFewDescriptors& operator=(const CFewDescriptors&) = delete;

 private:
  rlimit before_{};
};

#if !defined(__SANITIZE_ADDRESS__)  // whose run-time checks of types need a descriptor themselves
TEST_F(HttpServerListener, WithoutADescriptorClosesTheLongestIdleConnectionAndGoesOn) {
  Start([](std::int32_t handle, HttpServerRecv&) { AnswerText(handle, "yes"); });
  CRawClient idle(Port());
  idle.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(idle.ReadReply().body, "yes");
  const CFewDescriptors one(1);  // for the client; the server has none left
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "yes");
  EXPECT_TRUE(idle.WaitForEnd());
}
#endif

TEST_F(HttpServerListener, StartsAgainOnItsPortAtOnce) {
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
  std::int32_t handle = ListenerHandle();
  for (int round = 0; round < 20; ++round) {
    CRawClient client(Port());
    client.Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadReply().body, "ok") << round;
    EXPECT_EQ(CHttpServer::StopServer(handle), 0);
    EXPECT_EQ(CHttpServer::StopServer(handle), TansyNet::kNetUnknownHandle);
    ASSERT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", Port(), OnRequest, true), 0)
        << CHttpServer::LastError();
  }
}

TEST_F(HttpServerListener, StoppedClosesIdleConnections) {
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
  CRawClient fresh(Port());
  CRawClient used(Port());
  used.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(used.ReadReply().body, "ok");
  EXPECT_EQ(CHttpServer::StopServer(ListenerHandle()), 0);
  EXPECT_TRUE(fresh.WaitForEnd());
  EXPECT_TRUE(used.WaitForEnd());
  EXPECT_FALSE(CanConnect(Port()));
}

TEST_F(HttpServerListener, StoppedLetsRequestsUnderWayBeAnswered) {
  Start();
  CRawClient waiting(Port());
  waiting.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  CRawClient sending(Port());
  sending.Send("POST / HTTP/1.1\r\nContent-Length: 4\r\n\r\nab");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(CHttpServer::StopServer(ListenerHandle()), 0);
  EXPECT_EQ(AnswerText(delivery.handle, "late"), 0);
  const auto reply = waiting.ReadReply();
  EXPECT_EQ(reply.body, "late");
  EXPECT_EQ(reply.Header("connection"), "close");
  EXPECT_TRUE(waiting.WaitForEnd());
  sending.Send("cd");
  const Delivery second = Take();
  EXPECT_EQ(second.Body(), "abcd");
  EXPECT_EQ(AnswerText(second.handle, "too"), 0);
  EXPECT_EQ(sending.ReadReply().body, "too");
  EXPECT_TRUE(sending.WaitForEnd());
}

TEST_F(HttpServerListener, StoppedAnswersWhatIsAlreadySent) {
  Start();
  CRawClient client(Port());
  client.Send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  const Delivery first = Take();
  EXPECT_EQ(CHttpServer::StopServer(ListenerHandle()), 0);
  AnswerText(first.handle, "one");
  const Delivery second = Take();
  EXPECT_EQ(second.message.url, "/2");
  AnswerText(second.handle, "two");
  EXPECT_EQ(client.ReadReply().body, "one");
  const auto last = client.ReadReply();
  EXPECT_EQ(last.body, "two");
  EXPECT_EQ(last.Header("connection"), "close");
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerListener, StoppedDoesNotStopOthers) {
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
  std::int32_t other = 0;
  const std::uint16_t port = FreePort();
  ASSERT_EQ(CHttpServer::StartHttpServer(other, "127.0.0.1", port, OnRequest, true), 0);
  CRawClient client(port);
  EXPECT_EQ(CHttpServer::StopServer(ListenerHandle()), 0);
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "ok");
}

TEST_F(HttpServerListener, MayBeStoppedAndStartedFromACallback) {
  Start([this](std::int32_t handle, HttpServerRecv& /*message*/) {
    std::int32_t other = 0;
    int result = CHttpServer::StartHttpServer(other, "127.0.0.1", FreePort(), OnRequest, true);
    result += CHttpServer::StopServer(other);
    result += CHttpServer::StopServer(ListenerHandle());
    AnswerText(handle, std::to_string(result));
    EXPECT_FALSE(CHttpServer::Shutdown(0)) << "a thread cannot wait for its own end";
  });
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadReply().body, "0");
}

TEST_F(HttpServerListener, ShutdownWaitsForOpenRequests) {
  Start();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  std::jthread answerer([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    AnswerText(delivery.handle, "in time");
  });
  EXPECT_TRUE(CHttpServer::Shutdown(10000));
  EXPECT_EQ(client.ReadReply().body, "in time");
  EXPECT_TRUE(client.WaitForEnd());
}

TEST_F(HttpServerListener, ShutdownWaitsForAnswersThatAreNotTakenYet) {
  Start();
  CRawClient client(Port(), {.ipv6 = false, .receive_buffer = 4096});
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const std::string body(10 * 1024 * 1024, 'x');
  AnswerText(Take().handle, body);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
  std::jthread reader([&] { EXPECT_EQ(client.ReadReply().body.size(), body.size()); });
  EXPECT_TRUE(CHttpServer::Shutdown(10000));
}

TEST_F(HttpServerListener, ShutdownDoesNotWaitLongerThanTold) {
  Start();
  CRawClient client(Port());
  client.Send("GET / HTTP/1.1\r\n\r\n");
  const Delivery delivery = Take();
  CRawClient partial(Port());
  partial.Send("GET / HT");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(CHttpServer::Shutdown(50));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_TRUE(client.WaitForEnd());
  EXPECT_TRUE(partial.WaitForEnd());
  EXPECT_EQ(AnswerText(delivery.handle, "late"), TansyNet::kNetUnknownHandle);
  EXPECT_EQ(CHttpServer::OpenRequestCount(), 0U);
}

TEST_F(HttpServerListener, StartsAfterAShutdown) {
  for (int round = 0; round < 5; ++round) {
    Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
    CRawClient client(Port());
    client.Send("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(client.ReadReply().body, "ok");
    EXPECT_TRUE(CHttpServer::Shutdown(1000));
    EXPECT_TRUE(CHttpServer::Shutdown(1000)) << "nothing runs any more";
  }
}

TEST_F(HttpServerListener, SurvivesStopsAndStartsUnderLoad) {
  std::atomic<bool> stop{false};
  Start([](std::int32_t handle, HttpServerRecv& /*message*/) { AnswerText(handle, "ok"); });
  std::atomic<int> answered{0};
  std::vector<std::jthread> clients;
  for (int index = 0; index < 4; ++index) {
    clients.emplace_back([&] {
      while (!stop) {
        try {
          CRawClient client(Port());
          for (int count = 0; count < 5; ++count) {
            client.Send("GET / HTTP/1.1\r\n\r\n");
            answered += client.ReadReply().body == "ok" ? 1 : 0;
          }
        } catch (const std::runtime_error&) {
          std::this_thread::yield();  // stopped in the middle
        }
      }
    });
  }
  std::int32_t handle = ListenerHandle();
  for (int round = 0; round < 20; ++round) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(CHttpServer::StopServer(handle), 0);
    if (round % 5 == 4) {
      EXPECT_TRUE(CHttpServer::Shutdown(10000));
    }
    ASSERT_EQ(CHttpServer::StartHttpServer(handle, "127.0.0.1", Port(), OnRequest, true), 0)
        << CHttpServer::LastError();
  }
  const int before = answered;
  EXPECT_TRUE(Eventually([&] { return answered > before; }));
  stop = true;
}

}  // namespace
