// The place that stored bytes lie in, as the start of tansyd and a check see it: whether it is there, whose it is, and
// who is using it.
#ifndef TANSY_HOST_STORAGE_PLACE_H
#define TANSY_HOST_STORAGE_PLACE_H

#include <cstddef>
#include <memory>
#include <string>

#include "ObjectStore.h"

namespace Tansy::Host {

// One thread uses it. Members throw CStartFailure with kExitFailed and a line that names the place, unless they return
// an errno value.
class IStoragePlace {
 public:
  // A longer id is cut.
  static constexpr std::size_t kMostId = 100;

  virtual ~IStoragePlace() = default;

  // The place as messages name it: "storage folder /srv/objects", "storage pool photos".
  virtual std::string Describe() const = 0;
  // What to ask when it is empty or missing: "is its disk mounted?"
  virtual std::string Doubt() const = 0;
  // How to give an id to a place that is known to be the right one.
  virtual std::string HowToSetId(const std::string& id) const = 0;

  virtual bool Exists() = 0;
  // The text that names the catalogue that the bytes belong to. Returns 0 or an errno value, ENOENT when there is none.
  virtual int ReadId(std::string& text) = 0;
  // Makes the place when it is missing. The id is durable afterwards.
  virtual int WriteId(const std::string& text) = 0;
  virtual int RemoveId() = 0;

  // Fails when another tansyd uses the place. Lock also keeps others away for as long as this object lives.
  virtual void ExpectFree() = 0;
  virtual void Lock() = 0;
  // The same, but beside others that share it.
  virtual void Share() = 0;
  // Says whether a tansyd uses the place, this or another.
  virtual bool IsInUse() = 0;

  virtual std::unique_ptr<IObjectStore> Open(bool full_durability, EStoreUse use) = 0;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORAGE_PLACE_H
