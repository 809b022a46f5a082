#include "Backup.h"

#include <algorithm>
#include <chrono>
#include <ostream>
#include <thread>
#include <utility>
#include <vector>

#include "BackupBytes.h"
#include "BackupCatalogue.h"
#include "BackupFolder.h"
#include "BackupWriter.h"
#include "CatalogueFile.h"
#include "Certificate.h"
#include "HostSystem/Files.h"
#include "PrintableText.h"
#include "RadosUrl.h"
#include "RemovalHold.h"
#include "Schema.h"
#include "Settings.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "StoragePlaces.h"
#include "StoreIdentity.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kCatalogue = "catalogue.db";
constexpr const char* kSettings = "tansyd.toml";
constexpr const char* kStoreId = "objects/store.id";
constexpr const char* kKeySeal = "key-seal";  // opens the keys that the catalogue holds
constexpr std::size_t kMostKeySeal = 4096;
constexpr std::size_t kMostCertificate = std::size_t{1} << 20;
// A removal that had begun before the hold ends within this time.
constexpr std::chrono::seconds kTimeOfRemovals{10};
constexpr std::chrono::milliseconds kBetweenLooks{100};

constexpr const char* kMissing = "missing";
constexpr const char* kReplaced = "replaced";  // and freed, although nothing was to be freed

[[noreturn]] void Refuse(const std::string& line) {
  throw CStartFailure(kExitFailed, line);
}

void ExpectFiles(const HostOptions& options) {
  if (options.database.type != db_layer::kSqlite) {
    Refuse(
        "the catalogue is in a PostgreSQL database: back it up with pg_dump, then copy the storage, in this order "
        "(docs/safety.md, Backups)");
  }
  if (IsRadosUrl(options.storage)) {
    Refuse(
        "the bytes are in a Ceph pool: copy the catalogue with sqlite3's .backup, then take a snapshot of the pool, in "
        "this order (docs/safety.md, Backups)");
  }
}

// A server that does not see the lock of the backup frees bytes that the backup is about to read.
void ExpectHoldIsSeen(const CDataFolder& data, IStoragePlace& place) {
  if (HostSystem::IsOwnedByAnother(data.GetPath())) {
    Refuse("data folder " + data.GetPath() +
           " belongs to another user: make the backup as that user, so that the server sees it and frees nothing "
           "meanwhile");
  }
  if (place.IsInUse() && !data.IsInUse()) {
    Refuse(place.Describe() + " is in use by a tansyd with another data folder than " + data.GetPath() +
           ": name that one with --data");
  }
}

class CBackup {
 public:
  CBackup(const BackupOrder& order, const HostOptions& options, const std::string& settings_path, std::ostream& out)
      : order_(order), options_(options), settings_path_(settings_path), out_(out), folder_(order.folder) {}

  int Run() {
    if (const int count = folder_.RemoveUnfinished()) {
      out_ << "backup: removed what " << count << " unfinished backups had left\n";
    }
    FindEarlier();
    folder_.Begin();
    try {
      Fill();
    } catch (...) {
      folder_.GiveUp();
      throw;
    }
    return SumUp();
  }

 private:
  void FindEarlier() {
    manifest_.store_id = ReadStoreId(options_.database);
    EarlierBackup found;
    found.name = folder_.FindNewest(found.manifest);
    if (found.name.empty()) {
      return;
    }
    if (found.manifest.store_id != manifest_.store_id) {
      Refuse("folder " + folder_.GetPath() + " holds backups of another store, " + found.manifest.store_id +
             ": give this one a folder of its own");
    }
    if (order_.all_anew) {
      return;
    }
    earlier_ = std::move(found);
    const std::string objects = earlier_.name + "/" + kBackupData + "/objects";
    if (folder_.Root().OpenFolder(objects, earlier_.objects) == 0) {
      earlier_.bodies = std::make_unique<CBodyLog>(*earlier_.objects, CBodyLog::EMode::kLook);
      if (earlier_.bodies->Load() != 0) {
        earlier_.bodies.reset();
      }
    }
  }

  // Some systems rename no folder in which something is open, so the writer ends before that.
  void Fill() {
    const CRemovalHold hold;
    Write();
    folder_.Finish(manifest_);
  }

  void Write() {
    std::unique_ptr<HostSystem::IFolder> data;
    if (const int error = folder_.Root().OpenFolder(folder_.GetName() + "/" + kBackupData, data)) {
      Refuse("folder " + DataPath() + " cannot be used: " + HostSystem::ErrorText(error));
    }
    CBackupWriter writer(std::move(data), DataPath());
    CopyCatalogue();
    // What the copy names is in the store by now, and stays there.
    const std::unique_ptr<IObjectStore> store = FindStoragePlace(options_.storage)->Open(false, EStoreUse::kLook);
    CBackupBytes bytes(*store, folder_, writer, earlier_);
    bytes.Take(NamesToTake(*store));
    SettleFindings(bytes, *store);
    manifest_.files = bytes.Files();
    copied_bytes_ = bytes.CopiedBytes();
    linked_files_ = bytes.LinkedFiles();
    AddOthers(writer);
    writer.SyncFolders();
    CompleteManifest();
  }

  void CopyCatalogue() {
    CSqliteFile(options_.database.database, CSqliteFile::EAccess::kLook).CopyTo(CataloguePath());
    if (ReadStoreId(SqliteParam(CataloguePath())) != manifest_.store_id) {
      Refuse("the catalogue has been given to another store meanwhile: make the backup anew");
    }
    KeepWhatLasts(CataloguePath());
  }

  BackupNames NamesToTake(IObjectStore& store) {
    std::vector<PackedStoredName> names;
    CCatalogueFile(SqliteParam(CataloguePath())).VisitRows([&names](const CatalogueRow& row) {
      StoredName name;
      if (ParseOwnText(row.url, name)) {
        names.push_back(PackName(name, row.size));
      }
    });
    const auto note = [this, &names](const StoredEntry& entry) {
      if (!entry.is_temporary) {
        names.push_back(PackName(entry.name, 0));
        ++manifest_.pictures;
      }
      return true;
    };
    if (!store.ForEach(EContent::kPicture, note)) {
      Refuse("the pictures cannot be listed, see above");
    }
    return SortNames(std::move(names));
  }

  // A removal that had freed bytes when removals were held takes the row away too. Such objects are not in the backup.
  void SettleFindings(const CBackupBytes& bytes, IObjectStore& store) {
    findings_ = bytes.Findings();
    DropPictures(store);
    std::set<std::string> gone = WaitForRemovals();
    for (const std::string& url : FindReplaced(CataloguePath(), options_.database, gone)) {
      gone.erase(url);
      findings_[url] = kReplaced;
    }
    if (!gone.empty()) {
      ForgetObjects(CataloguePath(), gone);
    }
    ReportFindings();
  }

  // Takes out of the findings what is missing and is named by the live catalogue no longer, and gives it.
  std::set<std::string> WaitForRemovals() {
    std::set<std::string> gone;
    const auto end = std::chrono::steady_clock::now() + kTimeOfRemovals;
    TakeGone(gone);
    while (Has(kMissing) && std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(kBetweenLooks);
      TakeGone(gone);
    }
    return gone;
  }

  void TakeGone(std::set<std::string>& gone) {
    if (!Has(kMissing)) {
      return;
    }
    std::set<std::string> named;
    CCatalogueFile(options_.database).VisitRows([&](const CatalogueRow& row) {
      if (findings_.contains(row.url)) {
        named.insert(row.url);
      }
    });
    std::erase_if(findings_, [&](const auto& finding) {
      const bool is_gone = finding.second == kMissing && !named.contains(finding.first);
      if (is_gone) {
        gone.insert(finding.first);
      }
      return is_gone;
    });
  }

  bool Has(const char* what) const {
    return std::any_of(findings_.begin(), findings_.end(),
                       [what](const auto& finding) { return finding.second == what; });
  }

  // A picture that is gone meanwhile was never answered for.
  void DropPictures(const IObjectStore& store) {
    manifest_.pictures -= static_cast<std::uint64_t>(std::erase_if(findings_, [&store](const auto& finding) {
      StoredName name;
      return finding.second == kMissing && ParseLocationText(finding.first, name) && store.IsPicture(name);
    }));
  }

  void ReportFindings() {
    if (findings_.empty()) {
      return;
    }
    CCatalogueFile(SqliteParam(CataloguePath())).VisitRows([this](const CatalogueRow& row) {
      const auto found = findings_.find(row.url);
      if (found != findings_.end()) {
        out_ << found->second << " /" << Printable(row.bucket) << '/' << Printable(row.object) << ' '
             << Printable(row.url) << '\n';
      }
    });
    if (!order_.even_damaged && Has(kReplaced)) {
      Refuse(
          "the bytes of objects that were replaced meanwhile are gone, so the running tansyd does not see this backup: "
          "make it in the data folder and as the user of that tansyd, or add --even-damaged");
    }
    if (!order_.even_damaged) {
      Refuse("the bytes of " + std::to_string(findings_.size()) +
             " objects cannot be read whole: mend or remove these objects, or add --even-damaged");
    }
  }

  void AddOthers(CBackupWriter& writer) {
    manifest_.files.push_back(writer.WriteText(kStoreId, manifest_.store_id + "\n"));
    AddFile(writer, settings_path_, kSettings, kLargestSettingsFile);
    AddFile(writer, kKeySeal, kKeySeal, kMostKeySeal);
    for (const char* end : {"", ".crt", ".key"}) {
      AddFile(writer, std::string(kCertificatePath) + end, std::string(kCertificatePath) + end, kMostCertificate);
    }
    manifest_.objects = CCatalogueFile(SqliteParam(CataloguePath())).CountObjects();
    manifest_.files.push_back(writer.Adopt(kCatalogue));
  }

  void AddFile(CBackupWriter& writer, const std::string& from, const std::string& path, std::size_t limit) {
    std::string content;
    if (HostSystem::GetPathKind(from) == HostSystem::EPathKind::kMissing) {
      return;
    }
    if (const int error = HostSystem::ReadWholeFile(from, limit, content)) {
      Refuse("file " + from + " cannot be read: " + HostSystem::ErrorText(error));
    }
    manifest_.files.push_back(writer.WriteText(path, content));
  }

  void CompleteManifest() {
    std::sort(manifest_.files.begin(), manifest_.files.end(),
              [](const BackupFile& left, const BackupFile& right) { return left.path < right.path; });
    manifest_.made = TansyBase::TimeUtil::TimeT2StrUTCDatetime(TansyBase::TimeUtil::Now());
    manifest_.version = TANSY_VERSION;
    manifest_.schema = SqliteSchemaScripts().back().version;
  }

  int SumUp() {
    out_ << "backup: " << folder_.GetPath() << '/' << folder_.GetName() << ": " << manifest_.objects << " objects, "
         << manifest_.pictures << " pictures, " << copied_bytes_ << " bytes copied, " << linked_files_
         << " files linked\n";
    if (findings_.empty()) {
      return kExitDone;
    }
    out_ << "backup: " << findings_.size() << " objects are not whole in it\n";
    return kExitFindings;
  }

  std::string DataPath() const { return folder_.GetPath() + "/" + folder_.GetName() + "/" + kBackupData; }
  std::string CataloguePath() const { return DataPath() + "/" + kCatalogue; }

  const BackupOrder& order_;
  const HostOptions& options_;
  const std::string& settings_path_;
  std::ostream& out_;
  CBackupFolder folder_;
  EarlierBackup earlier_;
  BackupManifest manifest_;
  std::map<std::string, std::string> findings_;  // url and what is wrong with its bytes
  std::uint64_t copied_bytes_ = 0;
  std::uint64_t linked_files_ = 0;
};

}  // namespace
}  // namespace details

int MakeBackup(const BackupOrder& order, const HostOptions& options, const CDataFolder& data,
               const std::string& settings_path, std::ostream& out) {
  details::ExpectFiles(options);
  CCatalogueFile(options.database).TaskIds();  // fails here when the file is no catalogue
  const std::unique_ptr<IStoragePlace> place = FindStoragePlace(options.storage);
  MatchStoreIdentity(options.database, *place, EIdentity::kLook);
  details::ExpectHoldIsSeen(data, *place);
  return details::CBackup(order, options, settings_path, out).Run();
}

}  // namespace Tansy::Host
