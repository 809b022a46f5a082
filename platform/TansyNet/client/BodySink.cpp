#include "TansyNet/client/BodySink.h"

#include <algorithm>

namespace TansyNet::details {

namespace {

// This much room is made for a declared length before any byte of the body has come.
constexpr std::uint64_t kTrustedBytes = std::uint64_t{1024} * 1024;
constexpr std::uint64_t kFirstWindow = std::uint64_t{16} * 1024;

}  // namespace

bool CStringSink::Begin(std::uint64_t declared) {
  body_.clear();
  filled_ = 0;
  declared_ = declared;
  return declared <= max_bytes_;
}

std::span<char> CStringSink::Window() {
  if (filled_ == body_.size()) {
    std::uint64_t size = std::max<std::uint64_t>(filled_ * 2, declared_ > 0 ? kTrustedBytes : kFirstWindow);
    if (declared_ > filled_) {
      size = std::min(size, declared_);
    }
    // The window is one byte larger than allowed, because only that extra byte shows that a body is too large.
    if (size > max_bytes_) {
      size = max_bytes_ + 1;
    }
    body_.resize(size);
  }
  return {body_.data() + filled_, body_.size() - filled_};
}

bool CStringSink::Filled(std::size_t bytes) {
  filled_ += bytes;
  return filled_ <= max_bytes_;
}

bool CPieceSink::Begin(std::uint64_t declared) {
  if (piece_ == nullptr) {
    piece_ = std::make_unique_for_overwrite<std::array<char, kPieceBytes + 1>>();
  }
  response_.content_length = declared;
  return true;
}

std::span<char> CPieceSink::Window() {
  if (filled_ == piece_->size()) {
    HandOut(kPieceBytes, false);
    piece_->front() = piece_->back();
    filled_ = 1;
  }
  return {piece_->data() + filled_, piece_->size() - filled_};
}

bool CPieceSink::Filled(std::size_t bytes) {
  filled_ += bytes;
  return true;
}

void CPieceSink::HandOut(std::size_t bytes, bool last) {
  // The bytes are counted before the call, because the callback has seen them even when it throws.
  handed_out_ += bytes;
  filled_ -= bytes;
  callback_(response_, bytes > 0 ? piece_->data() : nullptr, static_cast<unsigned int>(bytes), {}, last);
}

void CPieceSink::Finish(ClientError error) {
  if (filled_ > kPieceBytes) {
    Window();
  }
  if (error.kind == ClientError::kNone) {
    HandOut(filled_, true);
    return;
  }
  if (filled_ > 0) {
    HandOut(filled_, false);
  }
  callback_(response_, nullptr, 0, error, true);
}

}  // namespace TansyNet::details
