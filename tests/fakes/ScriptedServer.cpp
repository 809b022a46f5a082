#include "fakes/ScriptedServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>

#include "fakes/ScriptedStream.h"

namespace Tansy::Tests {

namespace {

bool SameName(const std::string& left, const std::string& right) {
  return ::strcasecmp(left.c_str(), right.c_str()) == 0;
}

bool Fits(const std::string& rule, const std::string& request) {
  if (!rule.empty() && rule.back() == '*') {
    return request.compare(0, rule.size() - 1, rule, 0, rule.size() - 1) == 0;
  }
  return rule == request;
}

std::string Render(const ScriptedAnswer& answer) {
  if (!answer.raw.empty()) {
    return answer.raw;
  }
  std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " Scripted\r\n";
  bool framed = false;
  for (const auto& [name, value] : answer.headers) {
    text += name + ": " + value + "\r\n";
    framed = framed || SameName(name, "Content-Length") || SameName(name, "Transfer-Encoding");
  }
  if (!framed) {
    text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
  }
  return text + "\r\n" + answer.body;
}

ScriptedRequest ParseHead(const std::string& head) {
  ScriptedRequest request;
  request.head = head;
  const std::size_t method_end = head.find(' ');
  const std::size_t target_end = head.find(' ', method_end + 1);
  request.method = head.substr(0, method_end);
  request.target = head.substr(method_end + 1, target_end - method_end - 1);
  std::size_t begin = head.find("\r\n") + 2;
  while (begin < head.size()) {
    const std::size_t end = head.find("\r\n", begin);
    const std::string line = head.substr(begin, end - begin);
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos) {
      const std::size_t value = std::min(line.find_first_not_of(' ', colon + 1), line.size());
      request.headers.emplace_back(line.substr(0, colon), line.substr(value));
    }
    begin = end + 2;
  }
  return request;
}

struct Rule {
  std::string text;
  std::deque<ScriptedAnswer> answers;
};

}  // namespace

std::string ScriptedRequest::Header(const std::string& name) const {
  for (const auto& [key, value] : headers) {
    if (SameName(key, name)) {
      return value;
    }
  }
  return {};
}

bool ScriptedRequest::HasHeader(const std::string& name) const {
  return std::any_of(headers.begin(), headers.end(), [&](const auto& line) { return SameName(line.first, name); });
}

class ScriptedServer::Impl {
 public:
  explicit Impl(ScriptedServerOptions options);
  ~Impl();

  void Listen();
  void PrepareTls();
  void AcceptLoop();
  void Serve(const std::shared_ptr<Stream>& stream, int number);
  bool ServeOne(Stream& stream, int number, std::string& input);
  bool ReadBody(Stream& stream, std::string& input, ScriptedRequest& request);
  std::optional<ScriptedAnswer> FindRule(const ScriptedRequest& request);
  ScriptedAnswer AskHandler(const ScriptedRequest& request);
  bool Play(Stream& stream, const ScriptedAnswer& answer);
  void Record(const ScriptedRequest& request);
  bool Pause(int milliseconds);

  const ScriptedServerOptions options_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  std::uint16_t port_ = 0;
  SSL_CTX* context_ = nullptr;
  std::unique_ptr<CTemporaryFile> certificate_file_;

  mutable std::mutex mutex_;  // guards the members below
  mutable std::condition_variable changed_;
  bool stopping_ = false;
  std::vector<Rule> rules_;
  Handler handler_;
  std::vector<ScriptedRequest> requests_;
  std::list<std::shared_ptr<Stream>> open_;
  std::vector<std::thread> threads_;
  int connections_ = 0;
  int resumed_ = 0;

  std::thread acceptor_;  // last: it uses everything above
};

ScriptedServer::Impl::Impl(ScriptedServerOptions options) : options_(std::move(options)) {
  // The TLS library writes to sockets without suppressing SIGPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  if (options_.https) {
    PrepareTls();
  }
  Listen();
  if (::pipe(wake_) != 0) {
    throw std::runtime_error("no pipe");
  }
  acceptor_ = std::thread([this] { AcceptLoop(); });
}

ScriptedServer::Impl::~Impl() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    for (const auto& stream : open_) {
      stream->Shutdown();
    }
  }
  changed_.notify_all();
  ::close(wake_[1]);
  acceptor_.join();
  for (std::thread& thread : threads_) {
    thread.join();
  }
  ::close(wake_[0]);
  ::close(listener_);
  SSL_CTX_free(context_);
}

void ScriptedServer::Impl::PrepareTls() {
  const TestCertificate own = options_.certificate.key_pem.empty() ? MakeTestCertificate() : options_.certificate;
  certificate_file_ = std::make_unique<CTemporaryFile>(own.certificate_pem);
  const CTemporaryFile key_file(own.key_pem);
  context_ = SSL_CTX_new(TLS_server_method());
  if (context_ == nullptr || SSL_CTX_use_certificate_chain_file(context_, certificate_file_->path().c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context_, key_file.path().c_str(), SSL_FILETYPE_PEM) != 1) {
    throw std::runtime_error("the scripted server's certificate is not usable");
  }
  SSL_CTX_set_max_proto_version(context_, options_.newest_tls);
  if (options_.newest_tls != 0 && options_.newest_tls < TLS1_2_VERSION) {
    // These protocols are refused nowadays unless they are allowed explicitly.
    SSL_CTX_set_cipher_list(context_, "ALL:@SECLEVEL=0");
  }
}

void ScriptedServer::Impl::Listen() {
  sockaddr_storage storage{};
  socklen_t size = 0;
  void* const plain = &storage;
  if (options_.address.find(':') != std::string::npos) {
    auto* const address = static_cast<sockaddr_in6*>(plain);
    address->sin6_family = AF_INET6;
    address->sin6_port = htons(options_.port);
    ::inet_pton(AF_INET6, options_.address.c_str(), &address->sin6_addr);
    size = sizeof *address;
  } else {
    auto* const address = static_cast<sockaddr_in*>(plain);
    address->sin_family = AF_INET;
    address->sin_port = htons(options_.port);
    ::inet_pton(AF_INET, options_.address.c_str(), &address->sin_addr);
    size = sizeof *address;
  }
  listener_ = ::socket(storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (options_.receive_buffer > 0) {
    ::setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &options_.receive_buffer, sizeof options_.receive_buffer);
  }
  auto* const address = static_cast<sockaddr*>(plain);
  if (::bind(listener_, address, size) != 0 || ::listen(listener_, SOMAXCONN) != 0 ||
      ::getsockname(listener_, address, &size) != 0) {
    throw std::runtime_error("the scripted server cannot listen on " + options_.address);
  }
  port_ = ntohs(storage.ss_family == AF_INET6 ? static_cast<sockaddr_in6*>(plain)->sin6_port
                                              : static_cast<sockaddr_in*>(plain)->sin_port);
}

void ScriptedServer::Impl::AcceptLoop() {
  while (true) {
    pollfd entries[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    ::poll(entries, 2, -1);
    if (entries[1].revents != 0) {
      return;
    }
    const int handle = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (handle < 0) {
      continue;
    }
    const int on = 1;
    ::setsockopt(handle, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto stream = std::make_shared<Stream>(handle, context_);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      return;
    }
    const int number = ++connections_;
    open_.push_back(stream);
    threads_.emplace_back([this, stream = std::move(stream), number]() mutable {
      Serve(stream, number);
      {
        const std::lock_guard<std::mutex> inner(mutex_);
        open_.remove(stream);
        stream.reset();
      }
      changed_.notify_all();
    });
  }
}

void ScriptedServer::Impl::Serve(const std::shared_ptr<Stream>& stream, int number) {
  if (!stream->Accept()) {
    return;
  }
  if (stream->Resumed()) {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++resumed_;
  }
  std::string input;
  while (ServeOne(*stream, number, input)) {
  }
}

bool ScriptedServer::Impl::ServeOne(Stream& stream, int number, std::string& input) {
  std::size_t end = 0;
  while ((end = input.find("\r\n\r\n")) == std::string::npos) {
    if (!stream.Read(input)) {
      return false;
    }
  }
  ScriptedRequest request = ParseHead(input.substr(0, end + 4));
  request.connection = number;
  request.server_name = stream.ServerName();
  input.erase(0, end + 4);
  std::optional<ScriptedAnswer> answer = FindRule(request);
  if (answer && !answer->on_head.empty() && !stream.Write(answer->on_head.data(), answer->on_head.size())) {
    return false;
  }
  if (answer && answer->before_body) {
    Record(request);
    answer->close = true;
    return Play(stream, *answer);
  }
  const bool whole = ReadBody(stream, input, request);
  Record(request);
  return whole && Play(stream, answer ? *answer : AskHandler(request));
}

bool ScriptedServer::Impl::ReadBody(Stream& stream, std::string& input, ScriptedRequest& request) {
  const auto length = static_cast<std::size_t>(std::strtoull(request.Header("Content-Length").c_str(), nullptr, 10));
  request.body.reserve(length);
  request.body = input.substr(0, length);
  input.erase(0, length);
  while (request.body.size() < length) {
    if (!stream.Read(request.body)) {
      return false;
    }
  }
  input += request.body.substr(length);
  request.body.resize(length);
  request.complete = true;
  return true;
}

std::optional<ScriptedAnswer> ScriptedServer::Impl::FindRule(const ScriptedRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::string text = request.method + " " + request.target;
  for (Rule& rule : rules_) {
    if (Fits(rule.text, text)) {
      ScriptedAnswer answer = rule.answers.front();
      if (rule.answers.size() > 1) {
        rule.answers.pop_front();
      }
      return answer;
    }
  }
  return std::nullopt;
}

ScriptedAnswer ScriptedServer::Impl::AskHandler(const ScriptedRequest& request) {
  Handler handler;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    handler = handler_;
  }
  if (handler) {
    return handler(request);
  }
  ScriptedAnswer nothing;
  nothing.status = 404;
  nothing.body = "nothing scripted";
  return nothing;
}

// False when the connection has served its last request.
bool ScriptedServer::Impl::Play(Stream& stream, const ScriptedAnswer& answer) {
  if (!Pause(answer.delay_ms)) {
    return false;
  }
  if (answer.silent) {
    std::string rest;
    while (stream.Read(rest)) {
    }
    return false;
  }
  const std::string text = Render(answer);
  const std::size_t total = std::min(text.size(), answer.cut_after);
  const std::size_t piece = answer.piece > 0 ? answer.piece : std::max<std::size_t>(total, 1);
  bool sent = true;
  for (std::size_t done = 0; sent && done < total; done += piece) {
    sent =
        (done == 0 || Pause(answer.piece_delay_ms)) && stream.Write(text.data() + done, std::min(piece, total - done));
  }
  const bool stays = sent && !answer.close && !answer.reset && answer.cut_after == ScriptedAnswer::kNever;
  if (answer.reset) {
    stream.ResetOnClose();
  } else if (!stays && !answer.rude_tls) {
    stream.SayGoodbye();
  }
  return stays;
}

void ScriptedServer::Impl::Record(const ScriptedRequest& request) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }
  changed_.notify_all();
}

// False when the server stops meanwhile.
bool ScriptedServer::Impl::Pause(int milliseconds) {
  if (milliseconds <= 0) {
    return true;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  return !changed_.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return stopping_; });
}

ScriptedServer::ScriptedServer(ScriptedServerOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

ScriptedServer::~ScriptedServer() = default;

void ScriptedServer::Answer(const std::string& rule, ScriptedAnswer answer) {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  for (Rule& known : impl_->rules_) {
    if (known.text == rule) {
      known.answers.push_back(std::move(answer));
      return;
    }
  }
  impl_->rules_.push_back({rule, {std::move(answer)}});
}

void ScriptedServer::Handle(Handler handler) {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  impl_->handler_ = std::move(handler);
}

void ScriptedServer::ClearScript() {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  impl_->rules_.clear();
  impl_->handler_ = nullptr;
}

std::uint16_t ScriptedServer::Port() const {
  return impl_->port_;
}

std::string ScriptedServer::Address() const {
  const std::string& host = impl_->options_.address;
  return (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(impl_->port_);
}

std::string ScriptedServer::Url(const std::string& target) const {
  return (impl_->options_.https ? "https://" : "http://") + Address() + target;
}

const std::string& ScriptedServer::CertificateFile() const {
  return impl_->certificate_file_->path();
}

std::vector<ScriptedRequest> ScriptedServer::Requests() const {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->requests_;
}

bool ScriptedServer::WaitForRequests(std::size_t count, int timeout_ms) const {
  std::unique_lock<std::mutex> lock(impl_->mutex_);
  return impl_->changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                                  [&] { return impl_->requests_.size() >= count; });
}

void ScriptedServer::ClearRequests() {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  impl_->requests_.clear();
}

int ScriptedServer::ConnectionCount() const {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->connections_;
}

int ScriptedServer::ResumedCount() const {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  return impl_->resumed_;
}

void ScriptedServer::CloseConnections() {
  const std::lock_guard<std::mutex> lock(impl_->mutex_);
  for (const auto& stream : impl_->open_) {
    stream->Shutdown();
  }
}

bool ScriptedServer::WaitForNoConnections(int timeout_ms) const {
  std::unique_lock<std::mutex> lock(impl_->mutex_);
  return impl_->changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return impl_->open_.empty(); });
}

}  // namespace Tansy::Tests
