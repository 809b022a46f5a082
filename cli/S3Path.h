#ifndef TANSY_CLI_S3_PATH_H
#define TANSY_CLI_S3_PATH_H

#include <string>

namespace Tansy::Cli {

// Names a bucket, or what is below some part of its keys, or one object. A key may hold any bytes, slashes too.
struct S3Path {
  std::string bucket;
  std::string key;  // a key, the beginning of keys, or empty

  // Gives "s3://bucket/key" as people give it.
  std::string Url() const { return "s3://" + bucket + (key.empty() ? "" : "/" + key); }
  // Gives a name for lines of output that the commands read back: Url(), or, when that has control characters or bytes
  // that are no text, "/bucket/key" with the key percent-encoded.
  std::string Name() const;
  // Gives the path of the object, or prefix, `relative` below this one, which counts as a folder.
  S3Path Below(const std::string& relative) const;

  bool operator==(const S3Path&) const = default;
};

// Says whether a word of the command line can only mean the server: it begins with "s3://".
bool IsS3Url(const std::string& text);

// Reads "s3://BUCKET[/KEY]", "BUCKET[/KEY]", or "/BUCKET[/KEY]" with the key percent-encoded. Throws CFailure with
// kExitUsage.
S3Path ParseS3Path(const std::string& text);

// Gives the key with a slash at its end, unless it is empty: keys below this folder begin with it.
std::string FolderPrefix(const std::string& key);
// Gives the part of `key` up to its last slash, that included; "" when it has none.
std::string FolderOfKey(const std::string& key);
// Gives the last name of a path or key, without slashes: "2026" for "photos/2026/"; "" when it has none.
std::string LastName(const std::string& path);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_PATH_H
