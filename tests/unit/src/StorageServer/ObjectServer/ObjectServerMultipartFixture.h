// What the tests of multipart uploads share: a folder for first parts, tasks and their parts.
#ifndef TANSY_TESTS_UNIT_OBJECT_SERVER_MULTIPART_FIXTURE_H
#define TANSY_TESTS_UNIT_OBJECT_SERVER_MULTIPART_FIXTURE_H

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "ObjectServerFixture.h"
#include "fakes/TempFolder.h"

namespace Tansy::Tests {

// Runs in a folder of its own, below which the first parts are kept.
class CObjectServerMultipartFixture : public CObjectServerTest {
 protected:
  CObjectServerMultipartFixture() : before_(std::filesystem::current_path()) {
    std::filesystem::current_path(folder_.GetPath());
  }
  ~CObjectServerMultipartFixture() override { std::filesystem::current_path(before_); }

  std::string Path(const std::string& key) const { return "/" + bucket_ + "/" + key; }

  // Opens a task and returns its upload id.
  std::string NewTask(const std::string& key) {
    const FakeAnswer answer = Post(Path(key), "uploads");
    EXPECT_EQ(answer.response.status, 200) << answer.body;
    return Between(answer.body, "<UploadId>", "</UploadId>");
  }
  FakeAnswer SendPart(const std::string& key, const std::string& upload_id, const std::string& number,
                      const std::string& body) {
    return Post(Path(key), "upload_id=" + upload_id + "&part_number=" + number, body);
  }
  FakeAnswer SendPart(const std::string& key, const std::string& upload_id, int number, const std::string& body) {
    return SendPart(key, upload_id, std::to_string(number), body);
  }
  FakeAnswer List(const std::string& key, const std::string& upload_id) {
    return Get(Path(key), "upload_id=" + upload_id);
  }
  FakeAnswer Complete(const std::string& key, const std::string& upload_id,
                      const std::vector<std::pair<int, std::size_t>>& parts) {
    return Post(Path(key), "upload_id=" + upload_id, Completion(parts));
  }

  static std::string Completion(const std::vector<std::pair<int, std::size_t>>& parts) {
    std::string body = "<CompleteMultipartUpload><TotalPartNum>" + std::to_string(parts.size()) + "</TotalPartNum>";
    for (const auto& [number, size] : parts) {
      body += PartXml(std::to_string(number), std::to_string(size));
    }
    return body + "</CompleteMultipartUpload>";
  }
  static std::string PartXml(const std::string& number, const std::string& size) {
    return "<Part><PartNumber>" + number + "</PartNumber><PartSize>" + size + "</PartSize></Part>";
  }

  // The stored bytes of a completed object, as far as its size says.
  std::string Object(const std::string& key) {
    CloudStorage::ObjectInfo object;
    EXPECT_TRUE(catalogue_.GetObjectByName(object, key, bucket_)) << key;
    const std::string bytes = storage_.Bytes(object.url);
    EXPECT_LE(object.size, bytes.size());
    return bytes.substr(0, static_cast<std::size_t>(object.size));
  }
  bool HasObject(const std::string& key) {
    CloudStorage::ObjectInfo object;
    return catalogue_.GetObjectByName(object, key, bucket_);
  }

  // Nothing of the task has changed: its parts, its first part.
  struct TaskState {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> parts;
    std::uint32_t first_part = 0;
    std::uint32_t part_size = 0;
    bool operator==(const TaskState&) const = default;
  };
  TaskState StateOf(const std::string& upload_id) {
    TaskState state;
    CloudStorage::TaskPartSet rows;
    catalogue_.GetAllTask(upload_id, rows);
    for (const CloudStorage::ObjectTaskInfo& row : rows) {
      state.parts.emplace_back(row.part_num, row.size);
    }
    CloudStorage::PartSizeInfo first;
    if (catalogue_.GetFirstPartInfo(upload_id, first)) {
      state.first_part = first.first_part_num;
      state.part_size = first.part_size;
    }
    return state;
  }

  static std::filesystem::path FirstPartFile(const std::string& upload_id, int number) {
    return "localstoragetmp/" + upload_id + "_" + std::to_string(number);
  }
  static std::size_t FirstPartFiles() {
    std::error_code error;
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(".", error)) {
      count += entry.is_regular_file() ? 1 : 0;
    }
    return count;
  }
  static std::string Content(const std::filesystem::path& path) { return Tests::ReadFile(path.string()); }
  static std::string Between(const std::string& text, const std::string& begin, const std::string& end,
                             std::size_t from = 0) {
    const std::size_t first = text.find(begin, from);
    if (first == std::string::npos) {
      return {};
    }
    return text.substr(first + begin.size(), text.find(end, first) - first - begin.size());
  }

  const std::string bucket_ = NewBucket();
  const std::filesystem::path before_;
  CTempFolder folder_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_UNIT_OBJECT_SERVER_MULTIPART_FIXTURE_H
