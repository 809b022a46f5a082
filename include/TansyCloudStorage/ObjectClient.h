// Client of the object protocol.
#ifndef TANSY_CLOUD_STORAGE_OBJECT_CLIENT_H
#define TANSY_CLOUD_STORAGE_OBJECT_CLIENT_H

#include <memory>
#include <string>

#include "TansyCloudStorage/ClientFailure.h"
#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace Tansy::CloudStorage {

struct ObjectImpl;

// Uploads, downloads and removes objects of one server and pool. A client is a thin handle: copies share configuration,
// time-outs and last error. Threads: any number of threads may use one client; they all may call the progress function
// of the configuration at once. Errors: an operation returns false and leaves the reason in GetLastFailure,
// GetLastError and the log. Neither the operations nor the constructors throw; what a progress function throws ends the
// operation that called it.
//
// URLs are object paths as the uploads return them: "/" + pool + "/" + key. They are sent as they are, without
// percent-encoding: keys hold no blanks, "/", "?" or "#". Anything that does not begin with "/" is refused before
// anything is sent, whole URLs included (kForeignAddress for those of other servers).
//
// Signed requests go to the configured server, to the node that its best-node answer names for an upload, and to where
// it redirects a download (301 and 302, once).
//
// `data` of an upload points to `size` bytes that stay the caller's; it may be null when `size` is 0.
class TANSY_CLOUD_STORAGE_API CObjectClient {
 public:
  // Copies the configuration. When memory runs out for that, every operation fails with kOutOfResources.
  explicit CObjectClient(const SStorageServerConfig& config);
  CObjectClient(const CObjectClient& other);
  CObjectClient& operator=(const CObjectClient& other);
  ~CObjectClient();

  // Checks the configuration; every operation works without it too.
  bool Init();
  bool Uninit();

  // Uploads a file (path in UTF-8), in parallel parts from 10 MiB on. The path is opened for reading and writing, and a
  // file that does not exist is made and uploaded empty. The key is a new GUID with the file's extension. Files of
  // 4 GiB and more are refused, and so are files that become shorter meanwhile. The progress callback sees rising
  // values and, once the file is open, one final 100, whatever the result; it is called on the calling thread.
  bool UploadFile(std::string& out_url, const std::string& path);
  // Uploads a buffer of at most 32 MiB.
  bool UploadFile(std::string& out_url, const char* data, unsigned int size);

  // Uploads one object in pieces. `url` is empty with the first piece and is then set; pass it back with each later
  // one, to this client or another one of the same server and pool. `last` completes the object; only then does it
  // exist.
  //
  // Sizes: every piece but the last should be as large as the first, and goes out as one part; the last may be smaller.
  // From the first piece of another size on, the bytes are cut and gathered into parts of the first piece's size, and
  // what is left over waits in memory for the next piece. That needs a first piece of at least 64 KiB; after a smaller
  // one, a piece of another size is refused (kBadPiece) and the upload stays as it was. A later piece may be empty.
  //
  // Failures: a piece counts as a whole or not at all. When the result is false, the upload is as it was before the
  // call, so that the piece may be sent again; this holds for the last piece too. True for the last piece means that
  // the server has completed the object and says that it has the right size; only a server that cannot tell sizes is
  // believed without that.
  //
  // Pieces of one object are given one after another and in order; a piece that is given while another one is being
  // sent is refused (kBadPiece). What is known of unfinished uploads is kept until they are completed or the process
  // ends; servers forget them after three days.
  bool UploadFileByPieces(std::string& url, const char* data, unsigned int size, bool last);
  // Does the same, except that an object of one piece is stored as a multipart object too.
  bool UploadFileByPiecesAloneStorage(std::string& url, const char* data, unsigned int size, bool last);
  // Does the same with a name chosen by the caller: `url` is the object key when `first` is true. While an upload under
  // a name is not completed, another one under it in the same pool is refused (kBadPiece).
  bool UploadFileByPiecesAndFileName(std::string& url, const char* data, unsigned int size, bool last, bool first);

  // Downloads into a local file (path in UTF-8); an existing file is overwritten from its start, not truncated. An
  // empty object makes no file. From 10 MiB on the object is fetched in ranges of 1 MiB, all of one version: when it is
  // replaced meanwhile the download fails with kObjectChanged (a server that sends no ETag is only asked for the size
  // again). A failure may leave the file partly written; a range that the server refuses or redirects badly leaves it
  // open too, until the process ends, so that another attempt at the same path fails.
  bool DownloadFile(const std::string& url, const std::string& local_path);
  // Downloads into memory. `data` is not null; on success `*data` is new[]-allocated, one byte longer than
  // `size` and NUL-terminated; the caller frees it with delete[]. On failure both outputs stay as they are.
  bool DownloadFile(char** data, unsigned int& size, const std::string& url);
  // Does the same for a byte range, the text after "bytes=". The end is exclusive: "0-1023" stands for the bytes 0 to
  // 1022.
  bool DownloadFile(char** data, unsigned int& size, std::string& range, const std::string& url);

  // Removes the object from the catalogue. The second form asks the server to free the object's stored bytes too.
  bool RemoveFileByUrl(const std::string& url);
  bool RemoveObjectFileByUrl(const std::string& url);

  // Asks the version of any server, over plain HTTP and signed with the keys in `server`.
  bool GetStorageVersion(std::string& version, SStorageServerInfo server);

  // Gives the last failure of this client and its copies; successes do not clear it. `code` is a value of ClientError.
  // `second` describes the last failed download into a file: it is the status of the answer, the library's error
  // number, or what was wrong with the local file (-1001 not open, -1002 not written, 1000000 + the system's error when
  // it could not be opened). A streamed download whose local file fails has the code kUnexpectedAnswer here and
  // kLocalFile in GetLastFailure.
  void GetLastError(int& code, std::string& message);
  void GetLastError(int& code, int& second, std::string& message);
  // Gives the same failure with all that is known about it.
  SClientFailure GetLastFailure() const noexcept;

  // Sets the time-outs of downloads in milliseconds; both are 15000 at first, and 0 waits without limit. They count for
  // the downloads of all copies that start afterwards.
  void SetTimeoutConfig(unsigned int receive_ms, unsigned int send_ms);

 private:
  friend class CObjectProtoClient;
  static std::string GetAuthString(const std::string& method, const std::string& content_md5,
                                   const std::string& content_type, const std::string& date,
                                   const std::string& extension_headers, const std::string& resource,
                                   const std::string& sk);

  std::shared_ptr<ObjectImpl> ptr_conf_;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_OBJECT_CLIENT_H
