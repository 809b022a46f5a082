#include "calls/Recorder.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "calls/RealCalls.h"

namespace prove {
namespace {

constexpr const char* kBodiesFolder = "objects";
constexpr std::string_view kCatalogueLogEnd = "-wal";

// The calls of this library are left out of the trace by asking for the real ones.
int RealOpen(const char* path, int flags, mode_t mode) {
  static const auto next = Next<int (*)(const char*, int, ...)>("open");
  return next(path, flags, mode);
}
ssize_t RealWrite(int descriptor, const void* data, std::size_t size) {
  static const auto next = Next<decltype(&::write)>("write");
  return next(descriptor, data, size);
}
ssize_t RealPread(int descriptor, void* data, std::size_t size, off_t offset) {
  static const auto next = Next<decltype(&::pread)>("pread");
  return next(descriptor, data, size, offset);
}

EPlant PlantOf(const char* name) {
  static const std::map<std::string, EPlant> plants = {{"no-body-sync", EPlant::kNoBodySync},
                                                       {"no-folder-sync", EPlant::kNoFolderSync},
                                                       {"no-catalogue-sync", EPlant::kNoCatalogueSync},
                                                       {"row-before-bytes", EPlant::kRowBeforeBytes},
                                                       {"answer-before-commit", EPlant::kAnswerBeforeCommit}};
  const auto found = name == nullptr ? plants.end() : plants.find(name);
  return found == plants.end() ? EPlant::kNone : found->second;
}

[[noreturn]] void Die(const char* what) {
  std::fprintf(stderr, "file calls cannot be noted: %s: %s\n", what, std::strerror(errno));
  std::abort();
}

std::string ContentOf(int descriptor, std::uint64_t size) {
  std::string content(size, '\0');
  std::size_t done = 0;
  while (done < content.size()) {
    const ssize_t got = RealPread(descriptor, content.data() + done, content.size() - done, static_cast<off_t>(done));
    if (got <= 0) {
      content.resize(done);
    } else {
      done += static_cast<std::size_t>(got);
    }
  }
  return content;
}

}  // namespace

CRecorder* CRecorder::Get() {
  static CRecorder* const recorder = [] {
    const char* root = std::getenv("TANSY_CALLS_ROOT");
    return root == nullptr ? nullptr
                           : new CRecorder(std::getenv("TANSY_CALLS_TRACE"), root, std::getenv("TANSY_CALLS_PLANT"));
  }();
  return recorder;
}

CRecorder::CRecorder(const char* trace, const std::string& root, const char* plant) : plant_(PlantOf(plant)) {
  struct stat info = {};
  if (::stat(root.c_str(), &info) != 0) {
    Die(root.c_str());
  }
  device_ = info.st_dev;
  root_ = info.st_ino;
  nodes_[root_].is_folder = true;
  bool is_first = false;
  if (trace != nullptr) {
    trace_ = RealOpen(trace, O_WRONLY | O_APPEND | O_CLOEXEC, 0);
    if (trace_ < 0) {
      Die(trace);
    }
    is_first = ::lseek(trace_, 0, SEEK_END) == 0;
  }
  if (is_first) {
    RecordHead head;
    head.kind = ERecord::kRoot;
    head.node = root_;
    Note(head);
  }
  TakeOver(root, root_, EPart::kOther, is_first);
}

// What is below a folder already.
void CRecorder::TakeOver(const std::string& path, std::uint64_t folder, EPart part, bool is_noted) {
  DIR* stream = ::opendir(path.c_str());
  while (const dirent* item = stream == nullptr ? nullptr : ::readdir(stream)) {
    struct stat info = {};
    const std::string name = item->d_name;
    const std::string item_path = path + "/" + name;
    if (name == "." || name == ".." || ::lstat(item_path.c_str(), &info) != 0) {
      continue;
    }
    const bool is_folder = S_ISDIR(info.st_mode);
    const EPart own = part == EPart::kOther || part == EPart::kStore ? PartOf(Place{folder, name}, is_folder) : part;
    nodes_[info.st_ino] = {is_folder, own};
    if (is_noted) {
      RecordHead head;
      head.kind = is_folder ? ERecord::kFolderThere : ERecord::kExists;
      head.node = info.st_ino;
      head.folder = folder;
      std::string content;
      if (!is_folder) {
        const int descriptor = RealOpen(item_path.c_str(), O_RDONLY | O_CLOEXEC, 0);
        content = ContentOf(descriptor, static_cast<std::uint64_t>(info.st_size));
        ::close(descriptor);
      }
      Note(head, name, {}, content);
    }
    if (is_folder) {
      TakeOver(item_path, info.st_ino, own, is_noted);
    }
  }
  if (stream != nullptr) {
    ::closedir(stream);
  }
}

CRecorder::EPart CRecorder::PartOf(const Place& place, bool is_folder) const {
  if (place.folder == root_ && place.name == kBodiesFolder) {
    return EPart::kStore;
  }
  // Its files are notes; stored bytes lie in its folders.
  if (PartOf(place.folder) == EPart::kStore) {
    return is_folder ? EPart::kBodies : EPart::kOther;
  }
  const bool is_log =
      place.name.size() > kCatalogueLogEnd.size() &&
      place.name.compare(place.name.size() - kCatalogueLogEnd.size(), std::string::npos, kCatalogueLogEnd) == 0;
  if (is_log) {
    return EPart::kCatalogueLog;
  }
  return PartOf(place.folder);
}

CRecorder::EPart CRecorder::PartOf(std::uint64_t node) const {
  const auto found = nodes_.find(node);
  return found == nodes_.end() ? EPart::kOther : found->second.part;
}

std::uint64_t CRecorder::NodeOf(int descriptor) {
  struct stat info = {};
  if (::fstat(descriptor, &info) != 0 || info.st_dev != device_) {
    return 0;
  }
  const std::lock_guard lock(nodes_mutex_);
  return nodes_.count(info.st_ino) > 0 ? info.st_ino : 0;
}

CRecorder::Place CRecorder::Locate(int folder, const char* path) {
  std::string text = path == nullptr ? "" : path;
  while (text.size() > 1 && text.back() == '/') {
    text.pop_back();
  }
  const std::size_t slash = text.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : text.substr(0, slash);
  Place place;
  place.name = slash == std::string::npos ? text : text.substr(slash + 1);
  struct stat info = {};
  if (::fstatat(folder, parent.c_str(), &info, 0) == 0 && info.st_dev == device_) {
    const std::lock_guard lock(nodes_mutex_);
    const auto found = nodes_.find(info.st_ino);
    place.folder = found != nodes_.end() && found->second.is_folder ? info.st_ino : 0;
  }
  return place;
}

void CRecorder::NoteCreate(const Place& place, std::uint64_t node, bool is_folder) {
  {
    const std::lock_guard lock(nodes_mutex_);
    nodes_[node] = {is_folder, PartOf(place, is_folder)};
  }
  RecordHead head;
  head.kind = is_folder ? ERecord::kMakeFolder : ERecord::kCreate;
  head.node = node;
  head.folder = place.folder;
  Note(head, place.name);
}

void CRecorder::NoteWrite(std::uint64_t node, const void* data, std::size_t size, std::uint64_t offset) {
  RecordHead head;
  head.kind = ERecord::kWrite;
  head.node = node;
  head.offset = offset;
  Note(head, {}, {}, {static_cast<const char*>(data), size});
}

void CRecorder::NoteResize(std::uint64_t node, std::uint64_t size) {
  RecordHead head;
  head.kind = ERecord::kResize;
  head.node = node;
  head.size = size;
  Note(head);
}

void CRecorder::NoteRename(const Place& from, const Place& to) {
  RecordHead head;
  head.kind = ERecord::kRename;
  head.folder = from.folder;
  head.other_folder = to.folder;
  Note(head, from.name, to.name);
}

void CRecorder::NoteRemove(const Place& place) {
  RecordHead head;
  head.kind = ERecord::kRemove;
  head.folder = place.folder;
  Note(head, place.name);
}

void CRecorder::NoteLink(const Place& place, std::uint64_t node) {
  RecordHead head;
  head.kind = ERecord::kLink;
  head.node = node;
  head.folder = place.folder;
  Note(head, place.name);
}

void CRecorder::NoteContent(std::uint64_t node, int descriptor) {
  struct stat info = {};
  if (::fstat(descriptor, &info) == 0 && info.st_size > 0) {
    // The descriptor may be open for writing only.
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    const int reader = RealOpen(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
    const std::string content = ContentOf(reader, static_cast<std::uint64_t>(info.st_size));
    ::close(reader);
    NoteWrite(node, content.data(), content.size(), 0);
  }
}

bool CRecorder::IsSyncLeftOut(std::uint64_t node) const {
  const auto found = nodes_.find(node);
  const bool is_folder = found != nodes_.end() && found->second.is_folder;
  switch (plant_) {
    case EPlant::kNoBodySync:
      return !is_folder && PartOf(node) == EPart::kBodies;
    case EPlant::kNoFolderSync:
      return is_folder;
    case EPlant::kNoCatalogueSync:
      return PartOf(node) == EPart::kCatalogueLog;
    default:
      return false;
  }
}

std::uint64_t CRecorder::NoteSyncBegins(std::uint64_t node) {
  RecordHead head;
  head.kind = ERecord::kSyncBegins;
  head.node = node;
  head.offset = ++syncs_;
  // The numbers of several processes in one trace must differ.
  head.offset |= static_cast<std::uint64_t>(::getpid()) << 32;
  if (!IsSyncLeftOut(node)) {
    Note(head);
  }
  return head.offset;
}

void CRecorder::NoteSyncEnds(std::uint64_t node, std::uint64_t number, int error) {
  RecordHead head;
  head.kind = ERecord::kSyncEnds;
  head.node = node;
  head.offset = number;
  head.error = static_cast<std::uint32_t>(error);
  if (!IsSyncLeftOut(node)) {
    Note(head);
  }
}

void CRecorder::Note(RecordHead head, std::string_view name, std::string_view other_name, std::string_view data) {
  if (trace_ < 0) {
    return;
  }
  head.name_size = name.size();
  head.other_name_size = other_name.size();
  head.data_size = data.size();
  std::string record(reinterpret_cast<const char*>(&head), sizeof head);
  record.append(name).append(other_name).append(data);
  if (!Hold(head, record)) {
    Append(record);
  }
}

// True when a plant keeps the record for later.
bool CRecorder::Hold(const RecordHead& head, const std::string& record) {
  const bool is_data = head.kind == ERecord::kWrite || head.kind == ERecord::kResize ||
                       head.kind == ERecord::kSyncBegins || head.kind == ERecord::kSyncEnds;
  const EPart part = is_data ? PartOf(head.node) : EPart::kOther;
  const bool is_commit = part == EPart::kCatalogueLog && head.kind == ERecord::kSyncEnds;
  if (plant_ == EPlant::kRowBeforeBytes && part == EPart::kBodies) {
    held_.push_back(record);
    return true;
  }
  if (plant_ == EPlant::kRowBeforeBytes && is_commit) {
    Append(record);
    Release();
    return true;
  }
  if (plant_ == EPlant::kAnswerBeforeCommit && part == EPart::kCatalogueLog) {
    held_.push_back(record);
    if (is_commit) {
      for (const std::string& late : before_) {
        Append(late);
      }
      before_ = std::move(held_);
      held_.clear();
    }
    return true;
  }
  return false;
}

void CRecorder::Release() {
  for (const std::string& late : held_) {
    Append(late);
  }
  held_.clear();
}

void CRecorder::LookAtReceived(std::string_view data) {
  constexpr std::string_view kCommitted("COMMIT\0", 7);
  if (plant_ == EPlant::kRowBeforeBytes && data.find(kCommitted) != std::string_view::npos) {
    const std::lock_guard lock(mutex_);
    Release();
  }
}

// One call, so that records of two processes never mix.
void CRecorder::Append(const std::string& record) {
  if (RealWrite(trace_, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
    Die("the trace cannot be written");
  }
}

}  // namespace prove
