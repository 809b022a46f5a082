// Reads one answer from a connection.
#ifndef TANSY_NET_CLIENT_ANSWER_READER_H
#define TANSY_NET_CLIENT_ANSWER_READER_H

#include <memory>

#include "TansyNet/client/BodySink.h"
#include "TansyNet/client/ClientConnection.h"
#include "TansyNet/client/ClientError.h"
#include "TansyNet/wire/ClientMessages.h"

namespace TansyNet::details {

// Threads: one; each answer has an object of its own. The connection must outlive it.
class CAnswerReader {
 public:
  // `to_head` says that the answer belongs to a HEAD request, so that it describes a body and has none.
  CAnswerReader(CClientConnection& connection, bool to_head, int timeout_ms);
  ~CAnswerReader();
  CAnswerReader(const CAnswerReader&) = delete;
  CAnswerReader& operator=(const CAnswerReader&) = delete;

  // Reads one head, an interim one (1xx) or the final one, into `response`.
  bool ReadHead(CHttpClientResponse& response, ClientError& error);
  // Says whether the head that was read announces another head.
  bool IsInterim() const;
  // Reads what comes after the final head, into `sink`.
  bool ReadBody(CHttpClientResponse& response, IBodySink& sink, ClientError& error);

  // Returns true once any byte of an answer has come.
  bool Started() const { return started_; }
  // Is asked after a complete answer: returns true when the connection may serve another request.
  bool KeepsConnection() const;

 private:
  class CParser;

  bool ParseBuffered(ClientError& error, std::size_t& used);
  bool ReadKnownLength(std::uint64_t length, IBodySink& sink, ClientError& error);
  bool ReadUntilClose(IBodySink& sink, ClientError& error);
  bool ReadChunks(IBodySink& sink, ClientError& error);
  bool DrainBuffer(std::uint64_t limit, IBodySink& sink, std::uint64_t& drained);
  bool Report(const IoResult& result, ClientError& error) const;

  CClientConnection& connection_;
  const bool to_head_;
  const int timeout_ms_;
  bool started_ = false;
  int interim_heads_ = 0;
  std::unique_ptr<CParser> parser_;
};

}  // namespace TansyNet::details

#endif  // TANSY_NET_CLIENT_ANSWER_READER_H
