// Forms by which browsers upload objects: their fields, and the signed policy that says what they may contain.
// Threads: any.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_POST_POLICY_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_POST_POLICY_H

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "StorageServer/S3Server/S3Errors.h"
#include "StorageServer/S3Server/S3Signature.h"
#include "StorageServer/S3Server/S3Text.h"
#include "TansyNet/HttpServer.h"

namespace Tansy::CloudStorage::S3 {

struct FormField {
  std::string name;
  std::string value;
};

// A form, taken apart. The file lives as long as the request's body.
struct PostForm {
  std::vector<FormField> fields;  // those before the file, in their order
  std::string_view file;
  std::string file_name;

  // Gives the value of a field whatever the case of its name; it is empty when there is none.
  const std::string& Field(std::string_view lower_name) const;
};

// Fails unless the form has a file and a key. What comes behind the file is ignored.
Failure ReadPostForm(PostForm& form, const std::vector<TansyNet::FormPart>& parts);

// Gives the access key that signed the policy, as the form says.
std::string AccessKeyOfForm(const PostForm& form);

// Checks that the policy is signed, still holds, names every field, and is kept by the bucket, the fields and the file.
Failure CheckPostPolicy(const PostForm& form, const std::string& bucket, const Identity& identity, bool v2,
                        std::time_t now);

// Gives the fields that stand for headers of an upload, by the lower-case names of these headers.
LowerHeaders HeadersOfForm(const PostForm& form);

// Gives the key, in which "${filename}" stands for the name of the file.
std::string KeyOfForm(const PostForm& form);

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_POST_POLICY_H
