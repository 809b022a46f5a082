#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ATTRIBUTES_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ATTRIBUTES_H

#include <map>
#include <string>
#include <string_view>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Text.h"

namespace Tansy::CloudStorage::S3 {

// What this protocol tells about the bytes of an object beside their length. Threads: any.
struct Attributes {
  std::string etag;  // without quotes
  // Headers that come back with the object as they were given: by lower-case name.
  std::map<std::string, std::string> headers;
};

// Takes over those headers of an upload that come back with the object. Fails when the client's own ones are too long.
Failure TakeHeaders(Attributes& attributes, const LowerHeaders& request);

// Refuses headers of an upload that ask for something which would silently not be done, such as encryption.
Failure CheckUnsupportedHeaders(const LowerHeaders& request);
// Says whether an ACL by name gives rights to the owner only; so does none at all.
bool IsPrivateAcl(std::string_view acl);

// Write and read the one text that the catalogue keeps. It is ASCII whatever the headers hold. A text that is empty or
// of another form gives no attributes.
std::string ToText(const Attributes& attributes);
Attributes FromText(std::string_view text);
// Gives the entity tag alone.
std::string ETagOfText(std::string_view text);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_ATTRIBUTES_H
