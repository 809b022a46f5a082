#include "MovedMark.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <sstream>

#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kFile = "moved";
constexpr std::size_t kMostBytes = std::size_t{1} << 20;
constexpr const char* kHead = "# Written by tansyd move: where the catalogue and the bytes of this folder are now.";

// "ID URL"
void TakeLeft(const std::string& value, std::map<std::string, std::string>& left) {
  const std::size_t end = value.find(' ');
  if (end != std::string::npos) {
    left[value.substr(end + 1)] = value.substr(0, end);
  }
}

void Take(const std::string& name, const std::string& value, MovedMark& mark) {
  if (name == "move") {
    mark.move = value;
  } else if (name == "store") {
    mark.store_id = value;
  } else if (name == "database") {
    mark.database = value;
  } else if (name == "storage") {
    mark.storage = value;
  } else if (name == "old-database") {
    mark.old_databases.insert(value);
  } else if (name == "old-storage") {
    mark.old_storages.insert(value);
  } else if (name == "left-database") {
    TakeLeft(value, mark.left_databases);
  } else if (name == "left-storage") {
    TakeLeft(value, mark.left_storages);
  }
}

std::string TextOf(const MovedMark& mark) {
  std::string text = std::string(kHead) + "\nmove=" + mark.move + "\nstore=" + mark.store_id + "\n";
  text += mark.database.empty() ? "" : "database=" + mark.database + "\n";
  text += mark.storage.empty() ? "" : "storage=" + mark.storage + "\n";
  for (const std::string& old : mark.old_databases) {
    text += "old-database=" + old + "\n";
  }
  for (const std::string& old : mark.old_storages) {
    text += "old-storage=" + old + "\n";
  }
  for (const auto& [url, id] : mark.left_databases) {
    text += "left-database=" + id + " " + url + "\n";
  }
  for (const auto& [url, id] : mark.left_storages) {
    text += "left-storage=" + id + " " + url + "\n";
  }
  return text;
}

// Removes the file when it was not there.
int PutBack(const std::string& text, bool was_there) {
  if (was_there) {
    return HostSystem::ReplaceFile(kFile, text);
  }
  int error = 0;
  const auto folder = HostSystem::OpenFolder(".", error);
  if (folder == nullptr) {
    return error;
  }
  error = folder->Remove(kFile);
  return error != 0 && error != ENOENT ? error : folder->Sync();
}

}  // namespace
}  // namespace details

MovedMark ReadMovedMark() {
  std::string text;
  const int error = HostSystem::ReadWholeFile(details::kFile, details::kMostBytes, text);
  if (error != 0 && error != ENOENT) {
    throw CStartFailure(kExitFailed,
                        std::string("file ") + details::kFile + " cannot be read: " + HostSystem::ErrorText(error));
  }
  MovedMark mark;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t end = line.find('=');
    if (end != std::string::npos) {
      details::Take(line.substr(0, end), line.substr(end + 1), mark);
    }
  }
  return mark;
}

// A file whose name may not be on the disk counts as not written, but it is there: without the power going out, the
// next start would read it. So it is written once more, or what was there before is put back.
int WriteMovedMark(const MovedMark& mark) {
  std::string before;
  const int was_missing = HostSystem::ReadWholeFile(details::kFile, details::kMostBytes, before);
  if (was_missing != 0 && was_missing != ENOENT) {
    return was_missing;
  }
  const std::string text = details::TextOf(mark);
  int error = HostSystem::ReplaceFile(details::kFile, text);
  std::string now;
  if (error == 0 || (HostSystem::ReadWholeFile(details::kFile, details::kMostBytes, now), now != text)) {
    return error;
  }
  error = HostSystem::ReplaceFile(details::kFile, text);
  if (error != 0 && details::PutBack(before, was_missing == 0) != 0) {
    throw CMarkInDoubt(std::string("it is not sure whether the disk has the file ") + details::kFile + ": " +
                       HostSystem::ErrorText(error));
  }
  return error;
}

std::string FollowMoves(const MovedMark& mark, HostOptions& options) {
  std::string changed;
  const auto is_old = [&options](const std::string& url) {
    db_layer::DBParam old;
    return ParseDatabaseUrl(url, old).empty() && old.type == options.database.type &&
           db_layer::DescribeDatabase(old) == db_layer::DescribeDatabase(options.database);
  };
  if (std::any_of(mark.old_databases.begin(), mark.old_databases.end(), is_old)) {
    ParseDatabaseUrl(mark.database, options.database);
    changed = "the catalogue is in " + db_layer::DescribeDatabase(options.database);
  }
  if (mark.old_storages.count(options.storage) > 0) {
    options.storage = mark.storage;
    changed += std::string(changed.empty() ? "" : ", ") + "the bytes are in " + options.storage;
  }
  return changed;
}

}  // namespace Tansy::Host
