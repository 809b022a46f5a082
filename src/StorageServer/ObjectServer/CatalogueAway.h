#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_AWAY_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_AWAY_H

#include <exception>

namespace Tansy::CloudStorage {

// Is thrown when what is in memory may be older than what clients were promised, and the database cannot be asked.
class CCatalogueAway : public std::exception {
 public:
  const char* what() const noexcept override { return "the database cannot be asked for changes of the catalogue"; }
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_AWAY_H
