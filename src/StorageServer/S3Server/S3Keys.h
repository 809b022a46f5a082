// Whose requests the S3 server takes: those of the pair in its configuration, which may do everything, and those of
// further keys, each with its own rights.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_KEYS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_KEYS_H

#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Singleton.h"
#include "StorageServer/ConfigSnapshot.h"
#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "TansyBase/Noncopyable.h"
#include "TansyCloudStorage/S3Server.h"

namespace Tansy::CloudStorage::S3 {

// A further key; null stands for the pair of the configuration.
using S3KeyPointer = std::shared_ptr<const S3Key>;

// The further keys. A change counts for requests that come after it. Threads: any.
class CS3Keys : private TansyBase::CNoncopyable {
 public:
  static CS3Keys& Instance();

  // Takes these keys instead of all others. Returns false, and changes nothing, when one has no access or secret key.
  bool Replace(const std::vector<S3Key>& keys);
  // Null when there is none of this name.
  S3KeyPointer Find(std::string_view access_key) const;

 private:
  friend class CSingleton<CS3Keys>;

  CS3Keys() = default;
  ~CS3Keys() = default;

  CConfigSnapshot<std::map<std::string, S3KeyPointer, std::less<>>> keys_;
};

// Says by whose secret key a request has to be signed that names this access key: `key` is set to the further key of
// this name, and `identity` is made for it, or for the pair of the configuration, which a signature is compared with in
// all other cases. Fails for a key whose time has ended.
Failure FindIdentity(Identity& identity, S3KeyPointer& key, const S3ServerConfig& config, std::string_view access_key,
                     std::time_t now);

enum class EAccess { kRead, kWrite };

// Says whether a key may use a bucket at all.
bool MaySee(const S3KeyPointer& key, const std::string& bucket);
// Fails unless a key may do this with a bucket. A request for the server itself has no bucket, and is for all.
Failure CheckAccess(const S3KeyPointer& key, EAccess access, const std::string& bucket);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_KEYS_H
