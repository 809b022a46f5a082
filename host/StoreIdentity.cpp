#include "StoreIdentity.h"

#include <openssl/rand.h>

#include <cerrno>

#include "FileStore.h"
#include "HostSystem/Files.h"
#include "SqliteFile.h"
#include "StartFailure.h"
#include "StoredName.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kIdFile = "store.id";
constexpr std::size_t kIdLength = 32;
constexpr std::size_t kMostIdFile = 100;
// The newest rows, this number of them, are looked at until one is found whose bytes are there. Names are random, so
// one is proof enough.
constexpr const char* kSample = "1000";

struct Catalogue {
  std::string id;       // empty when it has none yet
  std::string next_id;  // the id that an adoption has begun to give to both; else empty
  bool is_new = false;  // it has never held a row
  bool has_rows = false;
  bool names_stored_file = false;  // one of its rows names a file of the other side
};

struct Store {
  std::string id;  // empty when it has none yet
  bool exists = false;
  bool has_objects = false;
  bool has_pictures = false;

  bool IsEmpty() const { return !has_objects && !has_pictures; }
};

std::string NewId() {
  unsigned char bytes[kIdLength / 2] = {};
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    throw CStartFailure(kExitFailed, "no random number can be had for the store's id");
  }
  return HexText(bytes, sizeof bytes);
}

class CMatch {
 public:
  CMatch(const std::string& database, const std::string& folder, EIdentity mode)
      : database_(database, mode == EIdentity::kLook ? CSqliteFile::EAccess::kLook : CSqliteFile::EAccess::kChange),
        folder_(folder),
        mode_(mode) {}

  void Run() {
    store_.exists = HostSystem::GetPathKind(folder_) != HostSystem::EPathKind::kMissing;
    ReadIds();
    if (!catalogue_.id.empty() && catalogue_.id == store_.id) {
      return;  // a start does not look at what is stored for that
    }
    LookAtStore();
    if (!catalogue_.id.empty()) {
      RefuseOtherId();
    }
    LookAtCatalogue();
    ExpectFit();
    if (mode_ == EIdentity::kAdopt) {
      Adopt();
    }
  }

 private:
  void LookAtStore() {
    if (!store_.exists) {
      return;
    }
    files_ = OpenFileStore(folder_, false, EStoreUse::kLook);
    const auto note_first = [this](const StoredEntry& entry) {
      (entry.content == EContent::kObject ? store_.has_objects : store_.has_pictures) = true;
      return false;
    };
    if (!files_->ForEach(EContent::kObject, note_first) || !files_->ForEach(EContent::kPicture, note_first)) {
      Refuse("storage folder " + folder_ + " cannot be read, see the log");
    }
  }

  void ReadIds() {
    catalogue_.id = database_.QueryText("SELECT value FROM platform.host_values WHERE name = 'store_id'");
    std::string text;
    const int error = HostSystem::ReadWholeFile(folder_ + "/" + kIdFile, kMostIdFile, text);
    if (!store_.exists || error == ENOENT) {
      return;
    }
    if (error != 0) {
      Refuse("storage folder " + folder_ + ": " + kIdFile + " cannot be read: " + HostSystem::ErrorText(error));
    }
    store_.id = text.substr(0, kIdLength);
    if (!IsHex(store_.id, kIdLength)) {
      Refuse("storage folder " + folder_ + ": " + kIdFile + " holds no id");
    }
  }

  void LookAtCatalogue() {
    catalogue_.next_id = database_.QueryText("SELECT value FROM platform.host_values WHERE name = 'next_store_id'");
    const std::string rows =
        "(SELECT COUNT(*) FROM (SELECT 1 FROM platform.local_object LIMIT 1)) + "
        "(SELECT COUNT(*) FROM (SELECT 1 FROM platform.local_object_task LIMIT 1))";
    catalogue_.has_rows = database_.QueryNumber("SELECT " + rows) > 0;
    catalogue_.is_new = !catalogue_.has_rows &&
                        database_.QueryNumber("SELECT COUNT(*) FROM platform.sequences WHERE next_value > 1") == 0;
    if (!store_.IsEmpty()) {
      LookForNamedFile("local_object");
      LookForNamedFile("local_object_task");
    }
  }

  void LookForNamedFile(const std::string& table) {
    database_.Query(std::string("SELECT url FROM platform.") + table + " ORDER BY id DESC LIMIT " + kSample,
                    [this](const CSqliteFile::CRow& row) {
                      StoredName name;
                      std::uint64_t size = 0;
                      catalogue_.names_stored_file =
                          catalogue_.names_stored_file ||
                          (ParseOwnText(row.Text(0), name) && files_->GetSize(name, size) == EStoreResult::kDone);
                    });
  }

  [[noreturn]] void RefuseOtherId() const {
    if (!store_.id.empty()) {
      Refuse("storage folder " + folder_ + " has the id " + store_.id + ", but " + Database() +
             " belongs to the store " + catalogue_.id + ": one of the two is not the right one");
    }
    const std::string belongs = ", but " + Database() + " belongs to the store " + catalogue_.id;
    if (!store_.exists || store_.IsEmpty()) {
      Refuse("storage folder " + folder_ + (store_.exists ? " is empty" : " is missing") + belongs +
             ": is its disk mounted?");
    }
    Refuse("storage folder " + folder_ + " has no id" + belongs + ": is the right folder mounted? If it is, write " +
           catalogue_.id + " into " + folder_ + "/" + kIdFile);
  }

  void ExpectFit() {
    const bool is_half_adopted = !store_.id.empty() && store_.id == catalogue_.next_id;
    if (catalogue_.names_stored_file || is_half_adopted) {
      return;
    }
    if (catalogue_.has_rows) {
      if (store_.IsEmpty()) {
        Refuse("storage folder " + folder_ + (store_.exists ? " is empty" : " is missing") + ", but the catalogue in " +
               Database() + " holds objects: is its disk mounted?");
      }
      Refuse("storage folder " + folder_ + " holds nothing that " + Database() +
             " names: one of the two is not the right one");
    }
    if (!store_.id.empty() ? !store_.IsEmpty() : store_.has_objects && catalogue_.is_new) {
      Refuse(Database() + (catalogue_.is_new ? " is new" : " holds no objects") + ", but storage folder " + folder_ +
             " holds the bytes of another catalogue: is the right database in its place?");
    }
  }

  // The store gets its id before the catalogue, because an id that only the catalogue has would look like a disk that
  // is not mounted. The catalogue notes the id before that, so that a crash or a full disk in between leaves a pair
  // whose adoption goes on at the next start.
  void Adopt() {
    if (store_.id.empty()) {
      store_.id = NewId();
      database_.Run("INSERT OR REPLACE INTO platform.host_values (name, value) VALUES ('next_store_id', ?1)",
                    {store_.id});
      int error = HostSystem::MakeFolders(folder_);
      if (error == 0) {
        error = HostSystem::ReplaceFile(folder_ + "/" + kIdFile, store_.id + "\n");
      }
      if (error != 0) {
        Refuse("storage folder " + folder_ + " cannot be written: " + HostSystem::ErrorText(error));
      }
    }
    database_.Run("INSERT INTO platform.host_values (name, value) VALUES ('store_id', ?1)", {store_.id});
    database_.Run("DELETE FROM platform.host_values WHERE name = 'next_store_id'");
  }

  std::string Database() const { return "database " + database_.GetPath(); }
  [[noreturn]] static void Refuse(const std::string& line) { throw CStartFailure(kExitFailed, line); }

  CSqliteFile database_;
  const std::string folder_;
  const EIdentity mode_;
  std::unique_ptr<IObjectStore> files_;
  Catalogue catalogue_;
  Store store_;
};

}  // namespace
}  // namespace details

void MatchStoreIdentity(const std::string& database, const std::string& folder, EIdentity mode) {
  details::CMatch(database, folder, mode).Run();
}

}  // namespace Tansy::Host
