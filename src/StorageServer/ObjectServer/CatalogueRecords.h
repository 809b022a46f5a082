#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_RECORDS_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_RECORDS_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>

#include "TansyCloudStorage/Catalogue.h"

namespace Tansy::CloudStorage {

// What changes together with an object.
struct ObjectExtras {
  // The upload task that became this object; its rows are removed. Empty: none.
  std::string ended_task;
  // A text that belongs to the object's bytes. An object without any has no row of them; those that belonged to bytes
  // before go with their object's url, which the schema sees to.
  std::string attributes;
  // The bytes that an object of this name must have when this is committed, by their url; empty: there must be none.
  // For a catalogue that others change too.
  std::optional<std::string> expected_url = std::nullopt;
};

// Where somebody stands in the log of changes that several processes share. The mark tells an entry from another one
// that had its number before it was lost.
struct ChangePosition {
  std::int64_t seq = 0;
  std::string mark;
};

// An entry of that log, with what has become of it.
struct CatalogueChange {
  ChangePosition position;
  bool is_object = false;  // else buckets have changed
  bool is_there = false;   // the object exists
  ObjectInfo object;
  std::string attributes;
};

// One part of a multipart upload; the row of part 1 also stands for the task.
struct ObjectTaskInfo {
  std::uint32_t id = 0;
  std::string task_id;
  std::string object_name;
  std::string bucket_name;
  std::uint32_t size = 0;
  std::uint32_t part_num = 0;
  std::string update_time;
  std::string url;
};

// What is known about the part size of a multipart upload.
struct PartSizeInfo {
  std::uint32_t first_part_num = 0;  // number of the part that arrived first; 0 before any part has arrived
  std::uint32_t first_part_size = 0;
  std::uint32_t part_size = 0;             // size of every part but the last; 0 while it is not settled
  std::string first_part_path;             // file that holds the first part
  std::string reserve;                     // carried along, not used by the catalogue
  std::shared_ptr<std::mutex> file_mutex;  // shared by all writers of the task
  bool is_lost = false;  // parts arrived before a restart, and the part that arrived first cannot be found again
};

// Parts of a task are ordered by number. The number alone finds one: all parts of a set belong to one task.
struct TaskPartLess {
  using is_transparent = void;
  bool operator()(const ObjectTaskInfo& left, const ObjectTaskInfo& right) const {
    return left.task_id != right.task_id ? left.task_id < right.task_id : left.part_num < right.part_num;
  }
  bool operator()(const ObjectTaskInfo& left, std::uint32_t right) const { return left.part_num < right; }
  bool operator()(std::uint32_t left, const ObjectTaskInfo& right) const { return left < right.part_num; }
};

using TaskPartSet = std::set<ObjectTaskInfo, TaskPartLess>;

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CATALOGUE_RECORDS_H
