#ifndef TANSY_HOST_NEW_KEY_REQUEST_H
#define TANSY_HOST_NEW_KEY_REQUEST_H

#include <string>

#include "Keys.h"

namespace Tansy::Host {

// Reads what a key is to be from JSON: {"name","buckets":[],"read_only","expires"}, all but the name may be missing.
// Returns what is wrong with it, in words; empty when nothing is. Nothing is passed over: what is not understood could
// be the member that makes the key weaker. Whether the values make sense is for CKeys::Add.
std::string ReadNewKey(Key& key, const std::string& json);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_NEW_KEY_REQUEST_H
