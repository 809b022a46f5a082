// Entry points of the object server.
//
// Threads: InitObjectServer is called once by the host, on any thread, before the others; only SetReadLeaseCallbacks,
// SetDownloadChunk, SetFirstPartRoomCallbacks and SetSignatureDateWindow may come before it. All others may be called
// from any thread, also while requests run.
// Ownership: whatever is passed in is copied, except the factory, which is kept for the life of the process.
// Errors: nothing throws. int results are 0 on success and a negative or non-zero code otherwise; the log says why.
#ifndef TANSY_CLOUD_STORAGE_OBJECT_SERVER_H
#define TANSY_CLOUD_STORAGE_OBJECT_SERVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TansyCloudStorage/Export.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace KivPlatform {
class IFactoryInterface;
}

namespace Tansy::CloudStorage {

// Connects to the database, loads the catalogue and opens the listeners; the second form opens HTTPS listeners too.
// Blocks until the database accepts: it tries again every 5 s, logs the reason each time and asks the factory for the
// parameters anew. Requests are served once InitPicServer has started the message loop that both servers share. Returns
// 0 even when the catalogue could not be read (ask IsCatalogueLoaded), -1 when upload and download port differ (the
// listeners are open all the same), else the HTTP library's error, and the listeners that were opened before the error
// stay open. When it is called again with other ports, it opens those and closes the old listeners; when the new ones
// cannot be opened, the old ones stay.
TANSY_CLOUD_STORAGE_API int InitObjectServer(const StorageServerConfig& config,
                                             const std::shared_ptr<KivPlatform::IFactoryInterface>& factory);
TANSY_CLOUD_STORAGE_API int InitObjectServer(const StorageServerConfig_V1& config,
                                             const std::shared_ptr<KivPlatform::IFactoryInterface>& factory);

// Returns 0 and does nothing: the server lives as long as the process.
TANSY_CLOUD_STORAGE_API int UninitObjectServer();

// Stops or starts the listeners. Returns 0 also when they are in that state already.
TANSY_CLOUD_STORAGE_API int SetObjectServerEnable(bool enable);

// Gives the stored location text of an object by its path ("/bucket/key"), without the "pool_name:" prefix. Returns
// false when the path is no object path or the object does not exist.
TANSY_CLOUD_STORAGE_API bool GetInternalURLByObjectUrl(std::string& internal_url, const std::string& object_url);

// Checks a download request that the host received itself, as the server would: `url` is the path as it was sent,
// `query` what followed its "?". None of the four arguments is changed. When the result is 0, `internal_url` holds the
// location text with its "pool_name:" prefix. Otherwise the result is the error code of the object protocol (-1 to
// -22), and `internal_url` stays as it was.
TANSY_CLOUD_STORAGE_API int CheckObjectRequestValid(std::string& internal_url, std::string& url, std::string& method,
                                                    std::string& query, std::map<std::string, std::string>& headers);

// Frames every download that is sent in chunks with two callbacks, so that the host can keep the bytes of an object
// readable until the last chunk is out, whatever replaces or removes the object meanwhile. The callbacks count for
// downloads that begin afterwards; each download ends with the end callback that belongs to its begin callback. Null
// for both means no frames, which is the default. See ReadBeginCallback. Always returns 0.
TANSY_CLOUD_STORAGE_API int SetReadLeaseCallbacks(ReadBeginCallback begin, ReadEndCallback end);

// Sets how many bytes of a download that is sent in chunks are read and sent at a time. Large chunks suit a storage
// that takes long to answer, small ones one that is in memory mostly: bytes that stay in the processor's cache between
// reading and sending are sent sooner. 0, which is the default, and more than 10,485,760 mean 10,485,760. Counts for
// downloads that begin afterwards. Always returns 0.
TANSY_CLOUD_STORAGE_API int SetDownloadChunk(std::uint32_t bytes);

// Lets the host refuse the files that the server writes itself, for example because the disk has no room to spare. The
// callbacks count for files that are begun afterwards; each file ends with the end callback that belongs to its begin
// callback. Null for both means that there is always room, which is the default. See RoomBeginCallback. Always returns
// 0.
TANSY_CLOUD_STORAGE_API int SetFirstPartRoomCallbacks(RoomBeginCallback begin, RoomEndCallback end);

// Appends to `locations` what StreamSaveCallback left for each upload under way that may still become an object: its
// client is still there, or all of it has come and only the row is missing. A host that looks for stored bytes without
// a row leaves these alone. When the client of an upload went away in the middle, this call forgets the upload, and the
// host has to free its bytes. Uploads in parts have rows of their own and are not named here. Returns false when memory
// ran out.
TANSY_CLOUD_STORAGE_API bool GetUploadsUnderWay(std::vector<std::string>& locations);

// Makes both servers refuse, from now on, a request whose Authorization header is right but whose Date header is
// missing, is no HTTP date, or differs from the clock by more than this number of minutes; 0 (the default) compares
// nothing. Signatures in a query (tokens, signed picture addresses) carry no date and are exempt. Always returns 0.
TANSY_CLOUD_STORAGE_API int SetSignatureDateWindow(std::uint32_t minutes);

// Give both servers (picture server first) the addresses that their answers name; they count from the next request on.
// Addresses are texts without brackets. In the last form, ports are decimal texts (0 when they are no numbers). All
// return 0.
TANSY_CLOUD_STORAGE_API int UpdateLocalServerIp(const std::string& ip);
TANSY_CLOUD_STORAGE_API int UpdateWanServerInfo(bool enable, const std::string& wan_ip, std::uint32_t picture_port,
                                                std::uint32_t object_port);
TANSY_CLOUD_STORAGE_API int UpdateWanServerInfoV1(const std::map<WanServerInfoFieldType, std::string>& fields);

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_OBJECT_SERVER_H
