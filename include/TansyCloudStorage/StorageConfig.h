// The records that configure servers and clients, and the callbacks through which a host stores bytes.
#ifndef TANSY_CLOUD_STORAGE_STORAGE_CONFIG_H
#define TANSY_CLOUD_STORAGE_STORAGE_CONFIG_H

#include <cstdint>
#include <functional>
#include <string>

namespace Tansy::CloudStorage {

// The five storage callbacks of a host.
//
// Location texts: the object server passes "pool_name:" + bucket + ";" followed by the text that the host left when it
// stored the object, empty for a new one. A write callback leaves in the same argument the text under which the bytes
// can be found again; that text (at most 1024 bytes, no single quotes) is what the catalogue keeps. Threads: all five
// may be called from several threads at once, for different objects and for the same one. Ownership: `data` of a write
// belongs to the caller and lives as long as the call. A read callback that succeeds hands over `data`, allocated with
// malloc, and the server frees it; a read callback that fails keeps whatever it has allocated, and the server does not
// look at `data`. No callback may throw.

// Stores a whole object, or a whole picture when `flag` is 0 (location then starts empty and must become a "/pic?..."
// path). Returns 0, 3 when there is no space left, anything else on failure.
using SaveObjectCallback = int (*)(std::string& location, const char* data, std::uint32_t size, int flag);

// Reads a whole object (`flag` 1) or picture (`flag` 0, location is the request path with its query). `size` comes in
// as the size that the caller expects (objects; 0 for pictures) and goes out as the bytes delivered. Returns 0 on
// success.
using ReadObjectCallback = int (*)(char*& data, std::uint32_t& size, const std::string& location, int flag);

// Stores bytes at a byte offset of an object, overwriting what is there and leaving a hole before an offset beyond the
// end. Returns 0, 3 when there is no space left, anything else on failure.
using StreamSaveCallback = int (*)(const char* data, std::uint32_t size, std::uint32_t offset, std::string& location);

// Reads up to `size` bytes at a byte offset; `size` goes out as the bytes delivered, fewer at the end of the object.
// Returns 0 on success.
using ReadRangeCallback = int (*)(char*& data, std::uint32_t& size, std::uint32_t offset, const std::string& location);

// Removes stored bytes. `location` is the storage path that the text of an object stands for (docs/embedding.md says
// for which texts there is one), or, for a picture whose upload could not be answered, the text that SaveObjectCallback
// left. Returns 0 on success; any other value becomes the error code of the answer (-1 to -20 of the object protocol).
using RemoveObjectCallback = int (*)(const std::string& location);

// A download that is sent in chunks begins: from now on until the matching end, ReadRangeCallback is called with this
// location text. Called before the first read, on the thread that opened the request. Returns 0 when the bytes will
// stay readable until the end; anything else when they are gone already, and then no end follows. Threads: any; the
// same location may have several downloads at once, each with a begin and an end of its own. May not throw.
using ReadBeginCallback = int (*)(const std::string& location);

// A download that began with this location text has read its last byte, or was broken off. May not throw.
using ReadEndCallback = void (*)(const std::string& location);

// The server is about to write this number of bytes into a file of its own: the part of an upload that came first,
// which waits below the current folder for the completion of the upload. Returns 0 when there is room; 3 when there is
// none; any other number is a failure. Only after 0 a matching end follows. Threads: any. May not throw.
using RoomBeginCallback = int (*)(std::uint64_t bytes);

// These bytes are written, or given up. May not throw.
using RoomEndCallback = void (*)(std::uint64_t bytes);

// Path of the certificate of the HTTPS listeners, below the executable's folder. It is one PEM file of this name that
// holds certificate and key, or a pair of files with ".crt" and ".key" behind the name.
inline constexpr const char* kDefaultCertificatePath = "META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server";

// Configuration of a server; copied by the server, so the host may free it after the call.
struct StorageServerConfig {
  bool flag_first = false;  // carried with the record; the servers do not read it
  bool wan_enable = false;  // best-node answers name the WAN address to clients from outside
  std::uint32_t upload_port = 0;
  std::uint32_t download_port = 0;  // port of the HTTP listeners (16 bits); must equal upload_port
  std::uint32_t wan_port = 0;
  std::uint32_t wan_download_port = 0;
  std::string pool_name;  // carried with the record; the servers do not read it
  std::string ip;         // local address that best-node answers name
  std::string wan_ip;
  std::string ak;  // access key that requests must carry
  std::string sk;  // secret key of the request signature
  SaveObjectCallback save_object = nullptr;
  ReadObjectCallback read_object = nullptr;
  StreamSaveCallback stream_save = nullptr;
  ReadRangeCallback read_range = nullptr;
  RemoveObjectCallback remove_object = nullptr;
};

// Adds the HTTPS ports.
struct StorageServerConfig_V1 : StorageServerConfig {
  std::uint32_t https_port = 0;
  std::uint32_t https_download_port = 0;  // port of the HTTPS listeners (16 bits)
  std::uint32_t https_wan_port = 0;
  std::uint32_t https_wan_download_port = 0;
};

// Key of the map that UpdateWanServerInfoV1 takes; the value is always a text. Other keys are ignored.
enum WanServerInfoFieldType : int {
  WAN_ENABLE = 0,            // "true" switches WAN answers on, anything else off
  WAN_IP = 1,                // both servers
  WAN_PIC_PORT = 2,          // picture server only
  WAN_OBJECT_PORT = 3,       // object server only
  WAN_PIC_HTTPS_PORT = 4,    // picture server only
  WAN_OBJECT_HTTPS_PORT = 5  // object server only
};

// What a client tells its host while an upload or a download goes on.
struct UploadProgress {
  std::int32_t reserved_first = 0;   // always 0
  std::int32_t reserved_second = 0;  // always 0
  std::int32_t percent = 0;          // 0 to 100
  std::uint64_t user_data = 0;       // as in the configuration
};

// Configuration of a client; copied by the client, so the host may free it after the constructor. An exception that
// `callback` throws ends the transfer, which then fails with ClientError::kHostCallback.
struct SStorageServerConfig {
  bool is_https = false;  // URLs are built as "https://" + ip + ":" + port instead of "http://"
  std::uint32_t upload_port = 0;
  std::uint32_t download_port = 0;
  std::string pool_name;  // bucket of the objects that the client makes
  std::string ip;         // server address or name; an IPv6 address with or without brackets
  std::string ak;
  std::string sk;
  std::function<void(UploadProgress)> callback;  // may be empty; called on the thread that runs the transfer
  std::uint64_t user_data = 0;                   // handed back in every UploadProgress
};

// The server that a version query asks.
struct SStorageServerInfo {
  std::string ip;
  std::uint32_t port = 0;
  std::string ak;
  std::string sk;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_CLOUD_STORAGE_STORAGE_CONFIG_H
