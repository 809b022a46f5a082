#ifndef TANSY_HOST_RADOS_WALK_H
#define TANSY_HOST_RADOS_WALK_H

#include <functional>

#include "ObjectStore.h"
#include "RadosPool.h"

namespace Tansy::Host {

// Shows all objects or all pictures that are stored in a pool to `visitor`, until the visitor returns false. The
// visitor may remove what it is shown. Chunks whose head is missing are shown once per name; a picture's are temporary
// then, because its head is written last. Returns 0 or an errno value.
int WalkPool(CRadosPool& pool, EContent content, const std::function<bool(const StoredEntry&)>& visitor);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_WALK_H
