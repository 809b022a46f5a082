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

// Uploads, downloads and removes objects of one server and pool. A thin handle: copies share configuration, time-outs
// and last error. Threads: any number of threads may use one client. Errors: false, the reason in GetLastError and in
// the log; no operation throws, and what a progress callback throws ends the operation that called it.
//
// URLs are object paths as the uploads return them: "/" + pool + "/" + key. They are sent as they are, without
// percent-encoding: keys hold no blanks, "/", "?" or "#".
//
// `data` of an upload points to `size` bytes that stay the caller's.
class TANSY_CLOUD_STORAGE_API CObjectClient {
 public:
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
  // one. `last` completes the object. Pieces of one object come from one thread at a time, in order; a failed piece may
  // be sent again.
  bool UploadFileByPieces(std::string& url, const char* data, unsigned int size, bool last);
  // The same; an object of one piece is stored as a multipart object too.
  bool UploadFileByPiecesAloneStorage(std::string& url, const char* data, unsigned int size, bool last);
  // The same with a name chosen by the caller: `url` is the object key when `first` is true.
  bool UploadFileByPiecesAndFileName(std::string& url, const char* data, unsigned int size, bool last, bool first);

  // Downloads into a local file (path in UTF-8); an existing file is overwritten from its start, not truncated. An
  // empty object makes no file. A failure may leave the file partly written, and from 10 MiB on even open until the
  // process ends, so that another attempt at the same path fails.
  bool DownloadFile(const std::string& url, const std::string& local_path);
  // Downloads into memory. `*data` is new[]-allocated, one byte longer than `size` and NUL-terminated; the caller frees
  // it with delete[].
  bool DownloadFile(char** data, unsigned int& size, const std::string& url);
  // The same for a byte range, the text after "bytes=": "0-1023" is the bytes 0 to 1022, the end being exclusive.
  bool DownloadFile(char** data, unsigned int& size, std::string& range, const std::string& url);

  // Removes the object from the catalogue; the second form frees its stored bytes too.
  bool RemoveFileByUrl(const std::string& url);
  bool RemoveObjectFileByUrl(const std::string& url);

  // Asks the version of any server, over plain HTTP.
  bool GetStorageVersion(std::string& version, SStorageServerInfo server);

  // The last failure of this client and its copies; successes do not clear it. `code` is a value of ClientError,
  // `second` a status or a file error of a download into a file.
  void GetLastError(int& code, std::string& message);
  void GetLastError(int& code, int& second, std::string& message);
  // The same failure with all that is known of it.
  SClientFailure GetLastFailure() const noexcept;

  // Time-outs of downloads in milliseconds, 15000 each at first.
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
