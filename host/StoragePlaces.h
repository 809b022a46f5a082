#ifndef TANSY_HOST_STORAGE_PLACES_H
#define TANSY_HOST_STORAGE_PLACES_H

#include <memory>
#include <string>
#include <vector>

#include "Schema.h"
#include "StoragePlace.h"

namespace Tansy::Host {

// Gives the place that the option "storage" names, which must be a valid one. Throws CStartFailure with kExitFailed
// when it cannot be reached.
std::unique_ptr<IStoragePlace> FindStoragePlace(const std::string& url);

// Gives the volumes that location texts of that place name.
std::vector<VolumeRow> StorageVolumes(const std::string& url);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORAGE_PLACES_H
