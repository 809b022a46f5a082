#include "FaultVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>

namespace db_layer {

namespace details {
namespace {

CFaultVfs* g_faults = nullptr;
sqlite3_vfs* g_real = nullptr;
sqlite3_vfs g_vfs;

bool EndsWith(const std::string& text, const char* end) {
  return text.ends_with(end);
}

// The real file's object follows this one in the memory that SQLite supplies.
struct FaultFile {
  sqlite3_file base;
  std::string* path;
  sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

FaultFile* Of(sqlite3_file* file) {
  return reinterpret_cast<FaultFile*>(file);
}
sqlite3_file* RealOf(sqlite3_file* file) {
  return Of(file)->Real();
}

int Close(sqlite3_file* file) {
  sqlite3_file* real = RealOf(file);
  const int result = real->pMethods == nullptr ? SQLITE_OK : real->pMethods->xClose(real);
  delete Of(file)->path;
  return result;
}

int Read(sqlite3_file* file, void* data, int size, sqlite3_int64 offset) {
  const int failure = g_faults->BeforeRead();
  return failure != 0 ? failure : RealOf(file)->pMethods->xRead(RealOf(file), data, size, offset);
}

int Write(sqlite3_file* file, const void* data, int size, sqlite3_int64 offset) {
  const int failure = g_faults->BeforeWrite(*Of(file)->path, offset, data, size);
  return failure != 0 ? failure : RealOf(file)->pMethods->xWrite(RealOf(file), data, size, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) {
  const int failure = g_faults->BeforeTruncate(*Of(file)->path, size);
  return failure != 0 ? failure : RealOf(file)->pMethods->xTruncate(RealOf(file), size);
}

int Sync(sqlite3_file* file, int flags) {
  std::uint64_t last_change = 0;
  const int failure = g_faults->BeforeSync(*Of(file)->path, last_change);
  if (failure != 0) {
    return failure;
  }
  const int result = RealOf(file)->pMethods->xSync(RealOf(file), flags);
  return result == SQLITE_OK ? g_faults->AfterSync(*Of(file)->path, last_change) : result;
}

int FileSize(sqlite3_file* file, sqlite3_int64* size) {
  return RealOf(file)->pMethods->xFileSize(RealOf(file), size);
}
int Lock(sqlite3_file* file, int level) {
  return RealOf(file)->pMethods->xLock(RealOf(file), level);
}
int Unlock(sqlite3_file* file, int level) {
  return RealOf(file)->pMethods->xUnlock(RealOf(file), level);
}
int CheckReservedLock(sqlite3_file* file, int* result) {
  return RealOf(file)->pMethods->xCheckReservedLock(RealOf(file), result);
}
int FileControl(sqlite3_file* file, int operation, void* argument) {
  return RealOf(file)->pMethods->xFileControl(RealOf(file), operation, argument);
}
int SectorSize(sqlite3_file* file) {
  return RealOf(file)->pMethods->xSectorSize(RealOf(file));
}
// This file system promises nothing about the way in which writes reach the disk.
int DeviceCharacteristics(sqlite3_file*) {
  return 0;
}
int ShmMap(sqlite3_file* file, int page, int size, int extend, void volatile** memory) {
  return RealOf(file)->pMethods->xShmMap(RealOf(file), page, size, extend, memory);
}
int ShmLock(sqlite3_file* file, int offset, int count, int flags) {
  return RealOf(file)->pMethods->xShmLock(RealOf(file), offset, count, flags);
}
void ShmBarrier(sqlite3_file* file) {
  RealOf(file)->pMethods->xShmBarrier(RealOf(file));
}
int ShmUnmap(sqlite3_file* file, int remove) {
  return RealOf(file)->pMethods->xShmUnmap(RealOf(file), remove);
}

constexpr sqlite3_io_methods kMethods = {2,
                                         Close,
                                         Read,
                                         Write,
                                         Truncate,
                                         Sync,
                                         FileSize,
                                         Lock,
                                         Unlock,
                                         CheckReservedLock,
                                         FileControl,
                                         SectorSize,
                                         DeviceCharacteristics,
                                         ShmMap,
                                         ShmLock,
                                         ShmBarrier,
                                         ShmUnmap,
                                         nullptr,
                                         nullptr};

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  FaultFile* fault_file = Of(file);
  std::memset(fault_file, 0, sizeof(FaultFile));
  if (!g_faults->HasPower()) {
    return SQLITE_CANTOPEN;
  }
  if (g_faults->is_read_only && (flags & SQLITE_OPEN_MAIN_DB) != 0) {
    flags = (flags & ~(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE)) | SQLITE_OPEN_READONLY;
  }
  const int result = g_real->xOpen(g_real, name, fault_file->Real(), flags, out_flags);
  if (result != SQLITE_OK) {
    return result;
  }
  fault_file->path = new std::string(name == nullptr ? "" : name);
  fault_file->base.pMethods = &kMethods;
  g_faults->Opened(*fault_file->path);
  return SQLITE_OK;
}

int Delete(sqlite3_vfs*, const char* name, int sync_folder) {
  if (!g_faults->HasPower()) {
    return SQLITE_IOERR_DELETE;
  }
  const int result = g_real->xDelete(g_real, name, sync_folder);
  if (result == SQLITE_OK) {
    g_faults->Deleted(name);
  }
  return result;
}

std::string ReadAll(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

}  // namespace
}  // namespace details

CFaultVfs::CFaultVfs() {
  details::g_faults = this;
  details::g_real = sqlite3_vfs_find(nullptr);
  details::g_vfs = *details::g_real;
  details::g_vfs.zName = "fault";
  details::g_vfs.szOsFile = static_cast<int>(sizeof(details::FaultFile)) + details::g_real->szOsFile;
  details::g_vfs.pNext = nullptr;
  details::g_vfs.xOpen = details::Open;
  details::g_vfs.xDelete = details::Delete;
  sqlite3_vfs_register(&details::g_vfs, 1);
}

CFaultVfs::~CFaultVfs() {
  sqlite3_vfs_unregister(&details::g_vfs);
  sqlite3_vfs_register(details::g_real, 1);
  details::g_faults = nullptr;
}

void CFaultVfs::HoldNextSync() {
  const std::lock_guard lock(mutex_);
  holds_next_sync_ = true;
}

void CFaultVfs::WaitForHeldSync() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return is_held_; });
}

void CFaultVfs::ReleaseSync() {
  const std::lock_guard lock(mutex_);
  holds_next_sync_ = false;
  is_held_ = false;
  changed_.notify_all();
}

void CFaultVfs::CutPower(std::mt19937& random) {
  const std::lock_guard lock(mutex_);
  has_power_ = false;
  constexpr std::size_t kSector = 512;
  for (auto& [path, file] : files_) {
    std::string content = file.durable;
    for (Change change : file.pending) {
      switch (random() % 4) {
        case 0:
          continue;  // it never left the cache
        case 1:
          // Some sectors of it left the cache. (A change of length happens wholly or not at all.)
          change.data.resize(std::min(change.data.size(), kSector * (random() % 9)));
          break;
        default:
          break;
      }
      Apply(content, change);
    }
    after_failure_[path] = content;
  }
}

void CFaultVfs::RestorePower() {
  const std::lock_guard lock(mutex_);
  for (const auto& [path, content] : after_failure_) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    // Shared memory does not outlive the machine.
    std::filesystem::remove(path + "-shm");
  }
  after_failure_.clear();
  files_.clear();
  has_power_ = true;
}

int CFaultVfs::BeforeWrite(const std::string& path, std::int64_t offset, const void* data, int size) {
  const std::lock_guard lock(mutex_);
  if (!has_power_) {
    return SQLITE_IOERR_WRITE;
  }
  if (write_failure != 0) {
    return write_failure;
  }
  files_[path].pending.push_back(
      {++changes_, offset, std::string(static_cast<const char*>(data), static_cast<std::size_t>(size)), std::nullopt});
  return SQLITE_OK;
}

int CFaultVfs::BeforeTruncate(const std::string& path, std::int64_t size) {
  const std::lock_guard lock(mutex_);
  if (!has_power_) {
    return SQLITE_IOERR_TRUNCATE;
  }
  files_[path].pending.push_back({++changes_, 0, {}, size});
  return SQLITE_OK;
}

int CFaultVfs::BeforeSync(const std::string& path, std::uint64_t& last_change) {
  std::unique_lock lock(mutex_);
  if (details::EndsWith(path, "-wal")) {
    ++log_syncs;
    if (holds_next_sync_) {
      holds_next_sync_ = false;
      is_held_ = true;
      changed_.notify_all();
      changed_.wait(lock, [this] { return !is_held_; });
    }
  }
  if (!has_power_) {
    return SQLITE_IOERR_FSYNC;
  }
  last_change = changes_;
  const int failure =
      sync_failure != 0 || details::EndsWith(path, "-wal") ? sync_failure.load() : database_sync_failure.load();
  if (failure != 0) {
    files_[path].pending.clear();
    ++failed_syncs;
  }
  return failure;
}

int CFaultVfs::AfterSync(const std::string& path, std::uint64_t last_change) {
  const std::lock_guard lock(mutex_);
  if (!has_power_) {
    return SQLITE_IOERR_FSYNC;  // the power went before the disk had everything
  }
  database_syncs += details::EndsWith(path, "-wal") ? 0 : 1;
  File& file = files_[path];
  const auto later = std::find_if(file.pending.begin(), file.pending.end(),
                                  [last_change](const Change& change) { return change.number > last_change; });
  std::for_each(file.pending.begin(), later, [&file](const Change& change) { Apply(file.durable, change); });
  file.pending.erase(file.pending.begin(), later);
  return SQLITE_OK;
}

int CFaultVfs::BeforeRead() const {
  return has_power_ ? read_failure.load() : SQLITE_IOERR_READ;
}

void CFaultVfs::Opened(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (!path.empty() && !files_.contains(path)) {
    files_[path].durable = details::ReadAll(path);
  }
}

void CFaultVfs::Deleted(const std::string& path) {
  const std::lock_guard lock(mutex_);
  files_.erase(path);
}

void CFaultVfs::Apply(std::string& content, const Change& change) {
  if (change.size) {
    content.resize(static_cast<std::size_t>(*change.size));
    return;
  }
  const auto offset = static_cast<std::size_t>(change.offset);
  content.resize(std::max(content.size(), offset + change.data.size()));
  content.replace(offset, change.data.size(), change.data);
}

}  // namespace db_layer
