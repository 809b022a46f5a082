// What the tests of multipart uploads share: tasks, their parts, and the completion.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_MULTIPART_FIXTURE_H
#define TANSY_TESTS_SYSTEM_SUPPORT_MULTIPART_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "support/TansydTest.h"

namespace system_tests {

// Works in the bucket "b", which a test makes.
class MultipartFixture : public TansydTest {
 protected:
  // Opens a task; empty when it cannot be.
  std::string Begin(const std::string& key) {
    const Reply reply = Send("POST", "/b/" + key + "?uploads");
    EXPECT_EQ(Outcome(reply), "200");
    return XmlValue(reply.body, "UploadId");
  }
  std::string SendPart(const std::string& key, const std::string& task, int number, const std::string& bytes) {
    return Outcome(Send("POST", "/b/" + key + "?upload_id=" + task + "&part_number=" + std::to_string(number), bytes));
  }
  // All parts in their order; false when one is refused.
  bool SendParts(const std::string& key, const std::string& task, const std::vector<std::string>& parts) {
    for (std::size_t i = 0; i < parts.size(); ++i) {
      const std::string outcome = SendPart(key, task, static_cast<int>(i) + 1, parts[i]);
      EXPECT_EQ(outcome, "200") << key << " part " << i + 1;
      if (outcome != "200") {
        return false;
      }
    }
    return true;
  }
  static std::string Completion(const std::vector<std::string>& parts) {
    std::string xml = "<CompleteMultipartUpload><TotalPartNum>" + std::to_string(parts.size()) + "</TotalPartNum>";
    for (std::size_t i = 0; i < parts.size(); ++i) {
      xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><PartSize>" +
             std::to_string(parts[i].size()) + "</PartSize></Part>";
    }
    return xml + "</CompleteMultipartUpload>";
  }
  std::string Complete(const std::string& key, const std::string& task, const std::vector<std::string>& parts) {
    return Outcome(Send("POST", "/b/" + key + "?upload_id=" + task, Completion(parts)));
  }
  // From opening to completion.
  void Upload(const std::string& key, const std::vector<std::string>& parts) {
    const std::string task = Begin(key);
    EXPECT_TRUE(SendParts(key, task, parts));
    EXPECT_EQ(Complete(key, task, parts), "200") << key;
  }
  std::string List(const std::string& key, const std::string& task) { return Get("/b/" + key + "?upload_id=" + task); }

  static std::vector<std::string> Parts(std::size_t count, std::size_t size, std::size_t last, std::uint64_t seed) {
    std::vector<std::string> parts;
    for (std::size_t i = 0; i < count; ++i) {
      parts.push_back(RandomBytes(i + 1 == count ? last : size, seed * 100 + i));
    }
    return parts;
  }
  static std::string Joined(const std::vector<std::string>& parts) {
    std::string whole;
    for (const std::string& part : parts) {
      whole += part;
    }
    return whole;
  }
  std::size_t FirstPartFiles() const {
    const std::filesystem::path folder = server_.Data("localstoragetmp");
    return std::filesystem::exists(folder)
               ? static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}))
               : 0;
  }
};

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_MULTIPART_FIXTURE_H
