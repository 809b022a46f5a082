// Catalogue and stored bytes carry the same id, so that neither is ever used with another's counterpart: a disk that is
// not mounted looks like an empty store, and a lost database like a store full of bytes that nothing refers to.
//
// The catalogue keeps the id as the host value "store_id", the store under the name "store.id".
#ifndef TANSY_HOST_STORE_IDENTITY_H
#define TANSY_HOST_STORE_IDENTITY_H

#include <string>

#include "StoragePlace.h"
#include "db_layer/Connect.h"

namespace Tansy::Host {

// Gives an id that no other store has. Throws CStartFailure with kExitFailed.
std::string NewStoreId();

enum class EIdentity {
  kAdopt,  // gives the id to the side that lacks it, when both sides fit together
  kLook,   // writes nothing
};

// Compares the catalogue `database`, which has the newest schema, with the store at `place`. Where one side or both
// have no id yet, they fit together when both are empty, or when a file that the catalogue names lies in the store.
// Throws CStartFailure with kExitFailed and a line that says what is mounted wrong.
void MatchStoreIdentity(const db_layer::DBParam& database, IStoragePlace& place, EIdentity mode);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_STORE_IDENTITY_H
