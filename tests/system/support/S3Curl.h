// Requests of the S3 protocol, signed by curl.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_S3_CURL_H
#define TANSY_TESTS_SYSTEM_SUPPORT_S3_CURL_H

#include <string>
#include <utility>
#include <vector>

#include "fakes/TempFolder.h"
#include "support/TansydTest.h"

namespace system_tests {

// One upload at a time. Files of requests and answers lie in its folder.
class CS3Curl {
 public:
  explicit CS3Curl(const CTansyd& server) : server_(server) {}

  // Status 0: there was no answer. A query is in the order of its names, and each of them has a "=".
  Reply Send(const std::string& method, const std::string& path, const std::string& body = "",
             const HeaderList& headers = {});

  Reply Put(const std::string& path, const std::string& body) { return Send("PUT", path, body); }
  // Gives the id of a new upload; empty when there is none.
  std::string Begin(const std::string& path);
  // Gives the tag of the part, without quotes; empty when it was refused.
  std::string PutPart(const std::string& path, const std::string& upload, int number, const std::string& body);
  // Parts are numbered from 1 on.
  Reply Complete(const std::string& path, const std::string& upload, const std::vector<std::string>& etags);

 private:
  const CTansyd& server_;
  Tansy::Tests::CTempFolder folder_;
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_S3_CURL_H
