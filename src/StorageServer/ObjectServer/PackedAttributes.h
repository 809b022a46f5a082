// The short form that attributes of objects have in memory, where there may be millions of them.
//
// Most of these texts are a digest in Base64 without padding, and behind a line end "4:" and the content type. A digest
// takes 16 bytes then, and a content type two, because each one is kept once. Every other text stays as it is.
// Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PACKED_ATTRIBUTES_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PACKED_ATTRIBUTES_H

#include <string>
#include <string_view>

namespace Tansy::CloudStorage::details {

// The packed form is good in this process only.
std::string PackAttributes(std::string_view text);
// Gives the text again, byte for byte.
std::string UnpackAttributes(std::string_view packed);

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_PACKED_ATTRIBUTES_H
