#include "BackupBytes.h"

#include <atomic>
#include <exception>
#include <string_view>
#include <thread>
#include <utility>

#include "BodyLogFormat.h"
#include "FilePlaces.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kObjects = "objects/";
constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;
constexpr std::size_t kThreads = 4;

const char* WordOf(EStoreResult result) {
  return result == EStoreResult::kMissing ? "missing" : "damaged";
}

std::string SegmentPath(std::uint32_t segment) {
  return std::string(kObjects) + kBodyLogVolume + "/" + SegmentFileName(segment);
}

// Reads stored bytes piece by piece.
class CReader {
 public:
  CReader(IObjectStore& store, const StoredName& name) : store_(store), name_(name) {}

  bool Next(std::string_view& bytes) {
    if (is_over_) {
      return false;
    }
    result_ = store_.ReadRange(name_, offset_, kPiece, buffer_);
    if (result_ != EStoreResult::kDone) {
      return false;
    }
    offset_ += buffer_.size;
    is_over_ = buffer_.size < kPiece;
    bytes = {buffer_.data.get(), buffer_.size};
    return buffer_.size > 0;
  }
  EStoreResult Result() const { return result_; }

 private:
  IObjectStore& store_;
  const StoredName name_;
  ReadBuffer buffer_;
  std::uint64_t offset_ = 0;
  bool is_over_ = false;
  EStoreResult result_ = EStoreResult::kDone;
};

}  // namespace
}  // namespace details

void InParallel(std::size_t count, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  const auto run = [&] {
    try {
      for (std::size_t i = next++; i < count; i = next++) {
        work(i);
      }
    } catch (...) {
      next = count;
      const std::lock_guard lock(mutex);
      failure = std::current_exception();
    }
  };
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 1; i < std::min(count, details::kThreads); ++i) {
      threads.emplace_back(run);
    }
    run();
  }
  if (failure != nullptr) {
    std::rethrow_exception(failure);
  }
}

void CBackupBytes::Take(const BackupNames& names) {
  InParallel(names.segments.size(), [&](std::size_t i) { TakeSegment(names.segments[i]); });
  InParallel(names.files.size(), [&](std::size_t i) { TakeFile(names.files[i]); });
}

// When the earlier file is gone, or has as many names as its file system allows, it is copied.
// An earlier file that is short, too: what is stored may be whole again.
bool CBackupBytes::Link(const std::string& path, std::uint32_t least) {
  const BackupFile* earlier = FindFile(earlier_.manifest, path);
  if (earlier_.name.empty() || earlier == nullptr || earlier->size < least) {
    return false;
  }
  writer_.MakeFoldersTo(path);
  const std::string below = std::string("/") + kBackupData + "/" + path;
  if (folder_.Root().Link(earlier_.name + below, folder_.GetName() + below) != 0) {
    return false;
  }
  NoteFile(*earlier);
  const std::lock_guard lock(mutex_);
  ++linked_files_;
  return true;
}

void CBackupBytes::TakeFile(const PackedStoredName& packed) {
  const StoredName name = UnpackName(packed);
  const std::string path = details::kObjects + FilePathOf(name);
  if (!Link(path, packed.size)) {
    CopyFile(name, path, packed.size);
  }
}

void CBackupBytes::CopyFile(const StoredName& name, const std::string& path, std::uint32_t least) {
  std::uint64_t size = 0;
  const EStoreResult found = store_.GetSize(name, size);
  if (found != EStoreResult::kDone) {
    NoteFinding(name, details::WordOf(found));
    return;
  }
  details::CReader reader(store_, name);
  BackupFile file = writer_.Write(path, [&reader](std::string_view& bytes) { return reader.Next(bytes); });
  if (reader.Result() != EStoreResult::kDone) {
    writer_.Remove(path);
    NoteFinding(name, details::WordOf(reader.Result()));
    return;
  }
  if (file.size < least) {
    NoteFinding(name, "short");
  }
  const std::uint64_t copied = file.size;
  NoteFile(std::move(file));
  const std::lock_guard lock(mutex_);
  copied_bytes_ += copied;
}

void CBackupBytes::TakeSegment(const SegmentBodies& bodies) {
  const std::string path = details::SegmentPath(bodies.segment);
  if (IsInEarlier(bodies, path) && Link(path, 0)) {
    return;
  }
  const std::string content = ContentOf(bodies);
  BackupFile file = writer_.WriteText(path, content);
  NoteFile(std::move(file));
  const std::lock_guard lock(mutex_);
  copied_bytes_ += content.size();
}

// A segment is written anew when more than half of it would be bodies that are gone.
bool CBackupBytes::IsInEarlier(const SegmentBodies& bodies, const std::string& path) const {
  const BackupFile* earlier = FindFile(earlier_.manifest, path);
  if (earlier_.bodies == nullptr || earlier == nullptr) {
    return false;
  }
  std::uint64_t needed = BodyFormat::kSegmentHeadBytes + BodyFormat::kIndexEndBytes;
  for (const PackedStoredName& packed : bodies.names) {
    BodyPlace place;
    if (earlier_.bodies->Find(UnpackName(packed), place) != 0 || place.size < packed.size) {
      return false;
    }
    needed += BodyFormat::RecordSpan(place.size) + BodyFormat::kIndexEntryBytes + 1;
  }
  return earlier->size / 2 <= needed;
}

// A segment that holds these bodies and no others.
std::string CBackupBytes::ContentOf(const SegmentBodies& bodies) {
  const BodyFormat::SegmentHead head{bodies.segment, bodies.nonce, 0};
  std::string content = BodyFormat::EncodeSegmentHead(head);
  std::vector<BodyEntry> entries;
  for (const PackedStoredName& packed : bodies.names) {
    const StoredName name = UnpackName(packed);
    BodyId id;
    ReadBuffer body;
    const EStoreResult result = store_.ReadWhole(name, body);
    if (!ParseBodyId(name, id) || result != EStoreResult::kDone) {
      NoteFinding(name, details::WordOf(result));
      continue;
    }
    if (body.size < packed.size) {
      NoteFinding(name, "short");
    }
    const std::string_view bytes(body.data.get(), body.size);
    BodyEntry entry;
    entry.key = id.key;
    entry.offset = static_cast<std::uint32_t>(content.size()) + BodyFormat::kRecordHeadBytes;
    entry.size = body.size;
    entry.crc = BodyFormat::BodyCrc(bodies.nonce, id.key, bytes);
    BodyFormat::AppendRecord(content, bodies.nonce, id.key, bytes, entry.crc);
    entries.push_back(entry);
  }
  const std::string states(entries.size(), BodyFormat::kLive);
  return content + BodyFormat::EncodeIndex(head, static_cast<std::uint32_t>(content.size()), entries, states);
}

void CBackupBytes::NoteFinding(const StoredName& name, const char* what) {
  const std::lock_guard lock(mutex_);
  findings_[LocationText(name)] = what;
}

void CBackupBytes::NoteFile(BackupFile file) {
  const std::lock_guard lock(mutex_);
  files_.push_back(std::move(file));
}

}  // namespace Tansy::Host
