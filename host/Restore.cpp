#include "Restore.h"

#include <memory>
#include <ostream>
#include <vector>

#include "BackupBytes.h"
#include "BackupCatalogue.h"
#include "BackupFolder.h"
#include "BackupWriter.h"
#include "Check.h"
#include "DataFolder.h"
#include "FileStore.h"
#include "HostSystem/Files.h"
#include "Settings.h"
#include "StartFailure.h"
#include "StoreIdentity.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kMark = "restore.unfinished";
constexpr const char* kLock = "tansyd.lock";
constexpr const char* kCatalogue = "catalogue.db";
constexpr const char* kSettings = "tansyd.toml";
constexpr const char* kOtherSettings = "tansyd.toml.from-backup";
constexpr const char* kObjects = "objects/";
constexpr const char* kStoreId = "objects/store.id";

[[noreturn]] void Refuse(const std::string& line) {
  throw CStartFailure(kExitFailed, line);
}

std::unique_ptr<HostSystem::IFolder> Open(const std::string& path) {
  int error = 0;
  auto folder = HostSystem::OpenFolder(path, error);
  if (folder == nullptr) {
    Refuse("folder " + path + " cannot be used: " + HostSystem::ErrorText(error));
  }
  return folder;
}

void ExpectEmpty(const std::string& what, const std::string& path) {
  if (HostSystem::GetPathKind(path) == HostSystem::EPathKind::kMissing) {
    return;
  }
  std::vector<HostSystem::FolderEntry> entries;
  if (const int error = Open(path)->List(entries)) {
    Refuse(what + " " + path + " cannot be read: " + HostSystem::ErrorText(error));
  }
  std::erase_if(entries, [](const HostSystem::FolderEntry& entry) { return entry.name == kLock; });
  if (!entries.empty()) {
    Refuse(what + " " + path + " is not empty: a backup is restored into an empty one");
  }
}

class CRestore {
 public:
  CRestore(const std::string& backup, const BackupManifest& manifest, const std::string& storage, std::ostream& out)
      : backup_(backup), manifest_(manifest), storage_(storage), out_(out), source_(Open(backup + "/" + kBackupData)) {}

  // The current folder is the new data folder.
  int Run(const std::string& data) {
    if (const int error = HostSystem::ReplaceFile(kMark, backup_ + "\n")) {
      Refuse("data folder " + data + " cannot be written: " + HostSystem::ErrorText(error));
    }
    if (const int error = HostSystem::MakeFolders(storage_)) {
      Refuse("storage folder " + storage_ + " cannot be made: " + HostSystem::ErrorText(error));
    }
    CBackupWriter rest(Open("."), data);
    CBackupWriter objects(Open(storage_), storage_);
    ExpectRoom(data);
    InParallel(manifest_.files.size(), [&](std::size_t i) {
      const BackupFile& file = manifest_.files[i];
      if (file.path == kStoreId) {
        return;
      }
      const bool is_object = file.path.starts_with(kObjects);
      const std::string path = is_object ? file.path.substr(std::char_traits<char>::length(kObjects)) : PathOf(file);
      Copy(file, path, is_object ? objects : rest);
    });
    const std::string id = NewStoreId();
    SetStoreId(kCatalogue, id);
    objects.WriteText("store.id", id + "\n");
    objects.SyncFolders();
    const int exit_code = CheckAll();
    rest.Adopt(kCatalogue);
    rest.SyncFolders();
    TansyBase::FileUtil::RemoveFile(kMark);
    out_ << "restore: " << manifest_.objects << " objects and " << manifest_.pictures << " pictures of " << backup_
         << " are in " << data << '\n';
    return exit_code;
  }

 private:
  // Settings that name places lead to the data that was backed up.
  std::string PathOf(const BackupFile& file) {
    if (file.path != kSettings) {
      return file.path;
    }
    std::string content;
    Settings settings;
    bool names_places = true;
    if (HostSystem::ReadWholeFile(backup_ + "/" + kBackupData + "/" + kSettings, kLargestSettingsFile, content) == 0) {
      settings = ParseSettings(content, kSettings, true);
      names_places =
          settings.texts.contains("data") || settings.texts.contains("database") || settings.texts.contains("storage");
    }
    if (!names_places) {
      return file.path;
    }
    if (!settings.access_key.empty()) {
      const std::string keys = AddCredentials("", settings.access_key, settings.secret_key);
      if (const int error = HostSystem::ReplaceFile(kSettings, keys)) {
        Refuse(std::string(kSettings) + " cannot be written: " + HostSystem::ErrorText(error));
      }
    }
    out_ << "restore: the settings name other places: they are in " << kOtherSettings << ", the keys in " << kSettings
         << '\n';
    return kOtherSettings;
  }

  void ExpectRoom(const std::string& data) const {
    std::uint64_t in_data = 0;
    std::uint64_t in_storage = 0;
    for (const BackupFile& file : manifest_.files) {
      (file.path.starts_with(kObjects) ? in_storage : in_data) += file.size;
    }
    std::uint64_t total = 0;
    std::uint64_t total_of_data = 0;
    std::uint64_t free = 0;
    std::uint64_t free_of_data = 0;
    if (Open(storage_)->GetRoom(total, free) == 0 && Open(".")->GetRoom(total_of_data, free_of_data) == 0 &&
        (free < in_storage || free_of_data < in_data)) {
      Refuse("the disk of " + (free < in_storage ? storage_ : data) +
             " has no room: " + std::to_string(in_storage + in_data) + " bytes are to be restored");
    }
  }

  void Copy(const BackupFile& file, const std::string& path, CBackupWriter& writer) {
    std::unique_ptr<HostSystem::IFile> source;
    if (const int error = source_->OpenForReading(file.path, source)) {
      Refuse("backup file " + file.path + " cannot be read: " + HostSystem::ErrorText(error));
    }
    std::string piece(std::size_t{1} << 20, ' ');
    std::uint64_t offset = 0;
    const BackupFile written = writer.Write(path, [&](std::string_view& bytes) {
      std::size_t done = 0;
      if (const int error = source->ReadAt(piece.data(), piece.size(), offset, done)) {
        Refuse("backup file " + file.path + " cannot be read: " + HostSystem::ErrorText(error));
      }
      offset += done;
      bytes = {piece.data(), done};
      return done > 0;
    });
    if (written.size != file.size || written.digest != file.digest) {
      Refuse("backup file " + file.path + " is damaged: it is not what was backed up");
    }
  }

  // Rows are compared with what was copied. Small bodies that no row names were in a segment of an earlier backup.
  int CheckAll() {
    const std::unique_ptr<IObjectStore> store = OpenFileStore(storage_, true, EStoreUse::kRepair);
    CheckOptions check;
    check.repair = check.force = true;
    const int exit_code = RunCheck(*store, SqliteParam(kCatalogue), check, out_);
    if (exit_code == kExitFailed) {
      Refuse("what was restored cannot be read");
    }
    return exit_code;
  }

  const std::string backup_;
  const BackupManifest& manifest_;
  const std::string storage_;
  std::ostream& out_;
  const std::unique_ptr<HostSystem::IFolder> source_;
};

std::string StorageFolder(const OptionTexts& texts, const HostOptions& options, const std::string& data) {
  if (texts.contains("database")) {
    throw CStartFailure(kExitUsage, "a backup is restored with its catalogue in the data folder: leave --database out");
  }
  if (!options.storage.starts_with("file:")) {
    throw CStartFailure(kExitUsage, "a backup is restored into a folder: give --storage file:DIR, or nothing");
  }
  const std::string path = UrlPath(options.storage);
  return HostSystem::AbsolutePath(path) == path ? path : data + "/" + path;
}

}  // namespace
}  // namespace details

int RestoreBackup(const std::string& path, const OptionTexts& texts, std::ostream& out) {
  HostOptions options;
  ApplyOptions(options, texts, "", "--", kExitUsage);
  const std::string data = HostSystem::AbsolutePath(options.data);
  const std::string storage = details::StorageFolder(texts, options, data);
  BackupManifest manifest;
  const std::string backup = FindBackup(path, manifest);
  details::ExpectEmpty("data folder", data);
  details::ExpectEmpty("storage folder", storage);
  const CDataFolder folder(data, CDataFolder::EUse::kServe);
  return details::CRestore(backup, manifest, storage, out).Run(folder.GetPath());
}

void ExpectRestored() {
  if (HostSystem::GetPathKind(details::kMark) != HostSystem::EPathKind::kMissing) {
    throw CStartFailure(kExitFailed,
                        "this data folder was not restored to its end: remove it, and restore the backup again");
  }
}

}  // namespace Tansy::Host
