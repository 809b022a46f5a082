// Where the body of an answer goes.
#ifndef TANSY_NET_CLIENT_BODY_SINK_H
#define TANSY_NET_CLIENT_BODY_SINK_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "TansyNet/client/BigAnswerCallback.h"
#include "TansyNet/client/ClientError.h"
#include "TansyNet/wire/ClientMessages.h"

namespace TansyNet::details {

// Bytes are read straight into the window that the sink offers.
class IBodySink {
 public:
  virtual ~IBodySink() = default;
  // A body begins. `declared` is what the server says, 0 when it does not say. False when it is too large to take.
  virtual bool Begin(std::uint64_t declared) = 0;
  // Room for at least one more byte of a body that is known, or supposed, to go on.
  virtual std::span<char> Window() = 0;
  // The first `bytes` of the last window are filled. False when the body has become too large.
  virtual bool Filled(std::size_t bytes) = 0;
  // Bytes taken so far.
  virtual std::uint64_t Size() const = 0;
};

// Collects a body in memory. What is reserved follows what has come, never what was declared.
class CStringSink : public IBodySink {
 public:
  CStringSink(std::string& body, std::uint64_t max_bytes) : body_(body), max_bytes_(max_bytes) {}

  bool Begin(std::uint64_t declared) override;
  std::span<char> Window() override;
  bool Filled(std::size_t bytes) override;
  std::uint64_t Size() const override { return filled_; }
  // Cuts the window off.
  void Finish() { body_.resize(filled_); }

 private:
  std::string& body_;
  const std::uint64_t max_bytes_;
  std::uint64_t declared_ = 0;
  std::size_t filled_ = 0;
};

// Hands a body out in pieces. A full piece is handed out only when a byte after it has come, so that the last piece can
// be named the last.
class CPieceSink : public IBodySink {
 public:
  static constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

  CPieceSink(CHttpClientResponse& response, const BigAnswerCallback& callback)
      : response_(response), callback_(callback) {}

  bool Begin(std::uint64_t declared) override;
  std::span<char> Window() override;
  bool Filled(std::size_t bytes) override;
  std::uint64_t Size() const override { return handed_out_ + filled_; }
  // The final call: with what is left, or, after a failure, what is left first and then the failure alone.
  void Finish(ClientError error);

 private:
  void HandOut(std::size_t bytes, bool last);

  CHttpClientResponse& response_;
  const BigAnswerCallback& callback_;
  std::unique_ptr<std::array<char, kPieceBytes + 1>> piece_;
  std::size_t filled_ = 0;
  std::uint64_t handed_out_ = 0;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_BODY_SINK_H
