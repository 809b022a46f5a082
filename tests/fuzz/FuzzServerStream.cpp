// links: TansyNet OSAL logging Boost::headers
// What a client sends on one connection, through the connection itself: requests behind one another, their bodies, and
// what is no request. The first byte of the input says how the client and the handler behave, the next one how many
// lengths of pieces follow, and the rest is sent in pieces of these lengths. However a stream is cut, the same requests
// are delivered, and each of them is answered once and in order. What is no request is refused, but when, and for which
// of several faults, depends on the pieces.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Require.h"
#include "TansyNet/MemoryAccount.h"
#include "TansyNet/server/AcceptedSocket.h"
#include "TansyNet/server/ServerConnection.h"
#include "logging/Logging.h"

namespace {

using TansyNet::CServerConnection;
using TansyNet::HttpServerRecv;

// Small enough for inputs to reach them.
constexpr std::uint32_t kHeaderBytes = 1024;
constexpr std::uint32_t kBodyBytes = 64;
// More than a socket takes at once.
constexpr std::size_t kBigAnswer = 600000;

constexpr unsigned char kAnswersLater = 1;  // the handler returns before it answers
constexpr unsigned char kAnswersBig = 2;
constexpr unsigned char kEndsSending = 4;  // the client says that it sends no more, and reads on

struct Script {
  unsigned char behaviour = 0;
  std::vector<std::size_t> cuts;  // lengths of pieces; what is left is the last piece
  std::string_view stream;
};

struct Outcome {
  std::vector<std::string> requests;  // as they were delivered
  std::string received;               // by the client
};

// Everything that is put together for one run; deliveries of the connection find it here.
struct Game {
  const Script* script = nullptr;
  std::vector<std::pair<std::int32_t, std::string>> waiting;  // requests that wait for their answers
  std::shared_ptr<CServerConnection> connection;
  Outcome outcome;
};
Game* g_game = nullptr;

bool IsPlain(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) <= 0x20; });
}

// The answer's body shows which request it belongs to.
std::string AnswerTo(const std::string& request, unsigned char behaviour) {
  std::string body = std::to_string(std::hash<std::string>()(request));
  if ((behaviour & kAnswersBig) != 0) {
    body.resize(kBigAnswer, '.');
  }
  return body;
}

void AnswerWaiting(Game& game) {
  for (const auto& [handle, request] : std::exchange(game.waiting, {})) {
    game.connection->Answer(handle, {}, AnswerTo(request, game.script->behaviour));
  }
}

void Deliver(std::int32_t handle, HttpServerRecv& message) {
  Require(message.error_code == TansyNet::kWholeRequest);
  Require(message.body_size == (message.body == nullptr ? 0 : message.body->size()));
  Require(message.body_size == message.content_length);
  Require(message.method == "PUT" || message.body_size <= kBodyBytes);
  Require(!message.method.empty() && IsPlain(message.method) && IsPlain(message.url) && IsPlain(message.query));
  std::string request = message.method + '\n' + message.url + '\n' + message.query;
  std::size_t head_bytes = request.size();
  for (const auto& [name, value] : message.headers) {
    Require(!name.empty() && IsPlain(name) && value.find_first_of("\r\n") == std::string::npos);
    head_bytes += name.size() + value.size();
    request += '\n' + name + ':' + value;
  }
  Require(head_bytes <= kHeaderBytes);
  request += "\n\n" + (message.body == nullptr ? std::string() : *message.body);
  g_game->outcome.requests.push_back(request);
  g_game->waiting.emplace_back(handle, std::move(request));
  if ((g_game->script->behaviour & kAnswersLater) == 0) {
    AnswerWaiting(*g_game);
  }
}

// The server's side without threads: its worker's events run when they are asked for.
class CServer {
 public:
  CServer() {
    TansyNet::HttpServerLimits limits;
    limits.header_bytes = kHeaderBytes;
    limits.whole_body_bytes = kBodyBytes;
    runtime_.SetLimits(limits);
  }

  // `socket` is the server's end. A pair of local sockets serves as well as a TCP connection.
  std::shared_ptr<CServerConnection> Accept(int socket) {
    boost::asio::ip::tcp::socket accepted(worker_->Loop());
    accepted.assign(boost::asio::ip::tcp::v4(), socket);
    auto kept = TansyNet::CServerSocket::Create({std::move(accepted)});
    Require(kept != nullptr);
    auto connection = std::make_shared<CServerConnection>(runtime_, runtime_.AdmitConnection(), worker_, endpoint_,
                                                          std::move(kept), nullptr, runtime_.Limits());
    connection->Start();
    return connection;
  }
  // Returns false when nothing was to be done.
  bool RunEvents() { return worker_->Loop().poll() > 0; }
  void ExpectNothingLeft() {
    Require(runtime_.Handles().Size() == 0);
    Require(runtime_.WaitUntilIdle(0));
    Require(TansyNet::CMemoryAccount::Process().Used() == 0);
  }

 private:
  TansyNet::CServerRuntime runtime_;
  std::shared_ptr<TansyNet::CServerWorker> worker_ = std::make_shared<TansyNet::CServerWorker>();
  std::shared_ptr<TansyNet::Endpoint> endpoint_ = std::make_shared<TansyNet::Endpoint>(&Deliver);
};

class CClient {
 public:
  explicit CClient(int socket) : socket_(socket) { Require(::fcntl(socket_, F_SETFL, O_NONBLOCK) == 0); }
  ~CClient() { ::close(socket_); }
  CClient(const CClient&) = delete;
  CClient& operator=(const CClient&) = delete;

  // Returns how much the socket took; a server that has closed takes everything.
  std::size_t Send(std::string_view bytes) {
    const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent >= 0) {
      return static_cast<std::size_t>(sent);
    }
    return errno == EAGAIN ? 0 : bytes.size();
  }
  // Returns false when there was nothing to read.
  bool Receive(std::string& bytes) {
    static std::vector<char> buffer(1 << 16);
    const ssize_t got = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (got <= 0) {
      return false;
    }
    bytes.append(buffer.data(), static_cast<std::size_t>(got));
    return true;
  }
  void EndSending() { ::shutdown(socket_, SHUT_WR); }

 private:
  const int socket_;
};

// Lets everything happen that can happen without further bytes of the client.
void Settle(CServer& server, CClient& client, Game& game) {
  for (bool goes_on = true; goes_on;) {
    goes_on = server.RunEvents();
    if (!game.waiting.empty()) {
      AnswerWaiting(game);
      goes_on = true;
    }
    goes_on = client.Receive(game.outcome.received) || goes_on;
  }
}

Outcome Play(const Script& script) {
  static CServer server;
  Game game;
  game.script = &script;
  g_game = &game;
  int sockets[2] = {-1, -1};
  Require(::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) == 0);
  {
    CClient client(sockets[0]);
    game.connection = server.Accept(sockets[1]);
    std::string_view rest = script.stream;
    for (std::size_t i = 0; !rest.empty(); ++i) {
      std::string_view piece = rest.substr(0, i < script.cuts.size() ? script.cuts[i] : rest.size());
      rest.remove_prefix(piece.size());
      while (!piece.empty()) {
        piece.remove_prefix(client.Send(piece));
        Settle(server, client, game);
      }
    }
    if ((script.behaviour & kEndsSending) != 0) {
      client.EndSending();
    }
    Settle(server, client, game);
  }
  while (server.RunEvents()) {
  }
  // The client is gone: nothing may be left of its connection.
  const std::weak_ptr<CServerConnection> connection = std::exchange(game.connection, nullptr);
  while (server.RunEvents()) {
  }
  Require(connection.expired());
  server.ExpectNothingLeft();
  g_game = nullptr;
  return game.outcome;
}

std::string TakeLine(std::string_view& bytes) {
  const std::size_t end = bytes.find("\r\n");
  Require(end != std::string_view::npos);
  const std::string line(bytes.substr(0, end));
  bytes.remove_prefix(end + 2);
  return line;
}

struct Answer {
  int status = 0;
  bool closes = false;
  std::size_t length = 0;
};

Answer TakeHead(std::string_view& bytes) {
  Answer answer;
  const std::string first = TakeLine(bytes);
  Require(first.starts_with("HTTP/1.1 ") && first.size() >= 12);
  answer.status = std::stoi(first.substr(9, 3));
  for (std::string line = TakeLine(bytes); !line.empty(); line = TakeLine(bytes)) {
    if (line.starts_with("Content-Length: ")) {
      answer.length = std::stoul(line.substr(16));
    }
    answer.closes = answer.closes || line == "Connection: close";
  }
  return answer;
}

// Reads what the client got: an answer to each request, and perhaps a refusal by the server itself.
void CheckAnswers(const Outcome& outcome, unsigned char behaviour) {
  std::string_view bytes = outcome.received;
  std::size_t answered = 0;
  while (!bytes.empty()) {
    const Answer answer = TakeHead(bytes);
    if (answer.status == 100) {
      continue;
    }
    if (answer.status != 200) {
      // A refusal is the last answer. To a HEAD request it has no body.
      Require(answer.status >= 400 && answer.status < 600 && answer.closes);
      Require(answered == outcome.requests.size());
      Require(bytes.empty() || bytes.size() == answer.length);
      return;
    }
    Require(answered < outcome.requests.size());
    const std::string& request = outcome.requests[answered++];
    const std::string expected = AnswerTo(request, behaviour);
    Require(answer.length == expected.size());
    if (!request.starts_with("HEAD\n")) {
      Require(bytes.starts_with(expected));
      bytes.remove_prefix(expected.size());
    }
    Require(!answer.closes || bytes.empty());
  }
  Require(answered == outcome.requests.size());
}

Script ReadScript(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kMostCuts = 16;
  Script script;
  script.behaviour = data[0];
  const std::size_t count = std::min<std::size_t>(data[1] % (kMostCuts + 1), size - 2);
  for (std::size_t i = 0; i < count; ++i) {
    script.cuts.push_back(std::max<std::size_t>(data[2 + i], 1));
  }
  script.stream = std::string_view(reinterpret_cast<const char*>(data), size).substr(2 + count);
  return script;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  logging::SetSink(nullptr);
  if (size < 2) {
    return 0;
  }
  Script script = ReadScript(data, size);
  const Outcome pieces = Play(script);
  CheckAnswers(pieces, script.behaviour);
  script.cuts.clear();
  const Outcome whole = Play(script);
  CheckAnswers(whole, script.behaviour);
  Require(pieces.requests == whole.requests);
  return 0;
}
