// What a client says of its last failure.
#ifndef TANSY_CLOUD_STORAGE_CLIENT_FAILURE_H
#define TANSY_CLOUD_STORAGE_CLIENT_FAILURE_H

#include <cstdint>
#include <string>

namespace Tansy::CloudStorage {

// Codes of CObjectClient::GetLastError and of SClientFailure. A number keeps its meaning for ever.
enum class ClientError : std::int32_t {
  kNone = 0,              // nothing has failed yet
  kBadArgument = 2,       // an argument or the configuration cannot be used; nothing was sent
  kLocalFile = 3,         // a local file could not be opened, read or written; see `system_error`
  kNotSent = 4,           // the request could not be sent or no whole answer came; see `transport_error`
  kUnexpectedAnswer = 5,  // the answer has another status than 200, a wrong length or an unreadable body
  kBadRedirect = 6,       // a redirect names no address that the client may use
  kNoSpace = 7,           // the server has no space left
  kNoSuchBucket = 8,      // a download: the server does not know the bucket
  kNoSuchKey = 9,         // a download: the server does not know the object
  kHostCallback = 10,     // the progress function of the host threw an exception
  kOutOfResources = 11,   // this process has no memory left, or no thread could be started
  kForeignAddress = 12,   // a URL or an answer names a server that is not configured; nothing was sent there
  kObjectChanged = 13,    // the object was replaced while it was downloaded; the local copy is not whole
  kWrongContent = 14,     // the server completed an upload but holds an object of another size
  kBadPiece = 15,         // a piece that does not fit the piecewise upload it was given for, or an unknown upload
};

// The most recent failure of a client and its copies. A record belongs to the caller who asked for it.
struct SClientFailure {
  ClientError code = ClientError::kNone;
  std::string text;              // for people, in English, without the secret key
  std::int32_t http_status = 0;  // status of the answer; 0 when there was no answer
  std::string error_code;        // the protocol's name of the error in the answer, such as "NoSuchKey"; often empty
  std::string request;           // method and target of the request that failed, "GET /pool/key?metadata"; may be empty
  std::string address;           // "host:port" that this request went to, IPv6 addresses in brackets; may be empty
  // Says why no answer came (kNotSent): 1 the URL cannot be used, 2 the name does not resolve, 3 no connection, 4 TLS,
  // 5 cut while sending, 6 closed before the answer was whole, 7 time-out, 8 an answer that is not HTTP, 9 an answer
  // that is too large. It is 0 for every other code.
  std::int32_t transport_error = 0;
  // The error number of the system behind the failure. For kLocalFile it is a file system error, with the values of
  // Windows on every system (2 not found, 5 access denied, 32 open elsewhere, 112 disk full, ...). For kNotSent it
  // comes from the system's network or from the TLS library.
  std::int32_t system_error = 0;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_CLIENT_FAILURE_H
