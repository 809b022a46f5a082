// The requests of the object protocol, client side.
#ifndef TANSY_SRC_STORAGE_CLIENT_OBJECT_PROTO_CLIENT_H
#define TANSY_SRC_STORAGE_CLIENT_OBJECT_PROTO_CLIENT_H

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "StorageClient/HttpExchange.h"
#include "StorageClient/ObjectImpl.h"
#include "StorageClient/PartUploadRegistry.h"
#include "TansyBase/FileUtil.h"
#include "TansyBase/Noncopyable.h"
#include "TansyNet/HttpClient.h"

namespace Tansy::CloudStorage {

inline constexpr std::int32_t kHttpOk = 200;
inline constexpr char kXmlContentType[] = "application/xml; charset=utf-8";
// The largest answer that is kept in memory. Its size still fits into 32 bits with a NUL behind the bytes.
inline constexpr std::uint64_t kMaxDownloadBytes = 0xFFFFFFFE;

// The fields in which one signed request differs from another.
struct SRequestParts {
  std::string method;
  std::string url;              // absolute
  std::string signed_resource;  // path and query as the server puts them together
  std::string host;             // value of the Host header; when it is empty, the request has none
  std::string content_type;
  const char* body = nullptr;
  std::uint64_t body_size = 0;
  bool with_content_md5 = false;  // adds the digest of the body
};

// What a server says of a stored object.
struct SObjectVersion {
  bool has_size = false;
  std::uint64_t size = 0;  // 0 when the server does not say
  std::string etag;        // changes whenever the object is replaced; empty when the server does not say
};

// Sends the requests of one operation of a client; the parts of one upload share an object of this class. Each member
// sends one HTTP request, except that a completion asks for the object's size afterwards. A request that changes
// something on the server is never sent again here. Only status 200 is success. Errors: a member returns false, writes
// a log line and sets the shared last error.
//
// Threads: several threads may send requests at once, because requests keep no state here. A download keeps its state
// in the object, so there may be only one at a time.
class CObjectProtoClient : private TansyBase::CNoncopyable {
 public:
  // Returns false when `conf` is empty; no other member may be called then.
  bool Init(const std::shared_ptr<ObjectImpl>& conf);
  SLastError& LastError() const { return conf_->last_error; }

  // `location` becomes the "host:port" that uploads of this key go to.
  bool GetBestNode(std::string& location, const std::string& key);
  // `out_url` becomes the object's path.
  bool UploadObject(std::string& out_url, const std::string& node, const std::string& key, const char* data,
                    unsigned int size);

  bool CreatePartTask(std::string& upload_id, const std::string& key);
  bool UploadPartObject(const std::string& key, const std::string& node, int part_number, const std::string& upload_id,
                        const char* data, unsigned int size);
  // Completes an upload; `parts` is in upload order. Returns true when the server then says that it holds an object
  // that is as large as all parts together. A server that does not know the question for the size is believed without
  // that.
  bool FinishPartTask(const std::string& upload_id, const std::string& key, std::list<SPartInfo> parts);

  // `url` is an object path. The second function frees the stored bytes too.
  bool RemoveFile(const std::string& url);
  bool RemoveObjectFile(const std::string& url);

  // Sends a signed request to any base URL with the client's time-outs; it returns true whatever the answer's status.
  // `range` is the text after "bytes=", or empty.
  bool SendObjectMsg(TansyNet::CHttpClientResponse& rsp, const std::string& base, const std::string& url,
                     const std::string& method, const std::string& body, const std::string& range);

  // Downloads into memory: `*data` is new[]-allocated and belongs to the caller; it holds `*size` + 1 bytes with a NUL
  // at the end.
  bool DownloadObject(char** data, unsigned int* size, const std::string& range, const std::string& url);
  // Downloads into a local file (path in UTF-8).
  bool DownloadObject(const std::string& local_path, const std::string& url);
  // Takes one piece of the answer that is streamed into the local file.
  void RecvMsgCallback(const TansyNet::CHttpClientResponse& rsp, const char* data, unsigned int len,
                       TansyNet::HttpClient::Error error, bool last);

  // Makes the request with Date and Authorization, and with Host, Content-MD5 and content type where `parts` asks for
  // them.
  static TansyNet::CHttpClientRequest MakeRequest(const SRequestParts& parts, const std::string& ak,
                                                  const std::string& sk);

 private:
  // Makes the same under the configured keys; `base` + `resource` is the URL, and `resource` is signed.
  TansyNet::CHttpClientRequest SignRequest(SRequestParts parts, const std::string& base,
                                           const std::string& resource) const;
  // Reads the number at the start of a header's value; it is 0 when there is none or it is negative.
  static std::uint64_t HeaderNumber(const TansyNet::CHttpClientResponse& rsp, const std::string& name);
  // Gives scheme and address of a node that a best-node answer names. Signed requests may go there, because the
  // configured server, which knows the secret key itself, says so.
  std::string NodeBase(const std::string& node) const;
  // Returns false, and sets the last error, unless `url` is a path: anything else could send the request to another
  // server.
  bool CheckPath(const std::string& url);
  bool Remove(const std::string& url, const std::string& resource);
  // An answer with more than `max_answer_bytes` is an error.
  bool SendObjectMsg(SHttpExchange& exchange, const std::string& base, const std::string& url,
                     const std::string& method, const std::string& body, const std::string& range,
                     std::uint64_t max_answer_bytes);

  // Sets the last error for an answer with another status, or for a server that is out of space.
  void SetUploadError(const SHttpExchange& exchange, const char* what);
  void SetDownloadError(const SHttpExchange& exchange);

  // Returns false when the server does not say what it holds; `failure` then says why, and the last error stays as it
  // is.
  bool GetObjectSize(SObjectVersion& version, SClientFailure& failure, const std::string& base, const std::string& url);
  // Does the same with a few more tries, and sets the last error.
  bool ConfirmVersion(SObjectVersion& version, const std::string& base, const std::string& url);
  // Says whether a completed upload has the size of its parts.
  bool ConfirmSize(const SHttpExchange& completion, const std::string& key, const std::list<SPartInfo>& parts);
  // `size` stays empty when the server does not know the request for it.
  bool AskStoredSize(std::optional<std::uint64_t>& size, const std::string& key);

  // Gets the answer to a GET of `url`, or of the address that it redirects to. Returns false unless the status is 200.
  bool GetObjectBytes(SHttpExchange& exchange, const std::string& url, const std::string& range,
                      std::uint64_t max_answer_bytes);
  bool FollowRedirect(SHttpExchange& exchange, const std::string& range, std::uint64_t max_answer_bytes);
  // Cuts an absolute URL after its host and port. `exchange` is the request that was redirected there.
  bool SplitLocation(const SHttpExchange& exchange, const std::string& location, std::string& base, std::string& path);

  bool DownloadIntoFile(const std::string& url);
  bool DownloadByStream(const std::string& url);
  bool SendStreamRequest(const std::string& base, const std::string& url);
  bool RedirectStream(const std::string& url);
  void SetStreamNotSent();
  // Keeps the status of a streamed answer, or what is wrong with the local file.
  void SetStreamStatus();
  bool DownloadByRanges(const std::string& url, const SObjectVersion& version);
  // These close the file and set the last error when the object was replaced meanwhile.
  bool CheckTag(const SHttpExchange& exchange, const std::string& etag);
  bool CheckSizeAgain(const std::string& url);
  bool AppendRange(const SHttpExchange& exchange, std::uint64_t expected_size);
  void KeepErrorBody(const char* data, std::size_t size);
  bool CreateLocalFile();
  bool WriteLocalFile(const char* data, std::uint32_t size);
  void SetFileFailure(std::int32_t status, const char* operation, std::uint32_t error);
  void ReportDownloadProgress();

  std::shared_ptr<ObjectImpl> conf_;
  std::string upload_base_;
  std::string download_base_;
  std::string host_;

  // State of a download into a file.
  std::int32_t file_status_ = -1;  // HTTP status of the streamed answer, or why the local file could not be written
  SClientFailure file_failure_;    // the reason why the local file could not be written
  SHttpExchange stream_;  // the request of a streamed download, with the answer's head and an error body's start
  std::string redirect_location_;
  std::string local_path_;
  std::uint64_t total_size_ = 0;
  std::uint64_t written_size_ = 0;
  std::int32_t reported_percent_ = 0;
  TansyBase::CLocalFile file_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_OBJECT_PROTO_CLIENT_H
