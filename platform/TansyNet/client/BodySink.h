// The place where the body of an answer goes.
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
  // A body begins. `declared` is its length as the server says it, 0 when it does not. Returns false when that is too
  // large.
  virtual bool Begin(std::uint64_t declared) = 0;
  // Gives room for at least one more byte of a body that continues, or may continue.
  virtual std::span<char> Window() = 0;
  // The first `bytes` of the last window have been filled. Returns false when the body has become too large.
  virtual bool Filled(std::size_t bytes) = 0;
  // Counts the bytes taken so far.
  virtual std::uint64_t Size() const = 0;
};

// Collects a body in memory. The room follows the bytes that have come, and never the declared length alone.
class CStringSink : public IBodySink {
 public:
  CStringSink(std::string& body, std::uint64_t max_bytes) : body_(body), max_bytes_(max_bytes) {}

  bool Begin(std::uint64_t declared) override;
  std::span<char> Window() override;
  bool Filled(std::size_t bytes) override;
  std::uint64_t Size() const override { return filled_; }
  // Removes the unused window from the body's end.
  void Finish() { body_.resize(filled_); }

 private:
  std::string& body_;
  const std::uint64_t max_bytes_;
  std::uint64_t declared_ = 0;
  std::size_t filled_ = 0;
};

// Hands a body out in pieces. A full piece is handed out only when a byte after it has come, so that the last piece can
// be marked as the last.
class CPieceSink : public IBodySink {
 public:
  static constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

  CPieceSink(CHttpClientResponse& response, const BigAnswerCallback& callback)
      : response_(response), callback_(callback) {}

  bool Begin(std::uint64_t declared) override;
  std::span<char> Window() override;
  bool Filled(std::size_t bytes) override;
  std::uint64_t Size() const override { return handed_out_ + filled_; }
  // Makes the final call, with what is left. After a failure it first hands out what is left and then reports the
  // failure.
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
