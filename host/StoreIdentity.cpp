#include "StoreIdentity.h"

#include <openssl/rand.h>

#include <cerrno>
#include <memory>

#include "HostDatabases.h"
#include "HostSystem/Files.h"
#include "StartFailure.h"
#include "StoredName.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kIdLength = 32;
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

class CMatch {
 public:
  CMatch(const db_layer::DBParam& database, IStoragePlace& place, EIdentity mode)
      : database_(OpenHostDatabase(database, mode == EIdentity::kLook ? EDatabaseUse::kLook : EDatabaseUse::kChange)),
        place_(place),
        mode_(mode) {}

  void Run() {
    store_.exists = place_.Exists();
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
    stored_ = place_.Open(false, EStoreUse::kLook);
    const auto note_first = [this](const StoredEntry& entry) {
      (entry.content == EContent::kObject ? store_.has_objects : store_.has_pictures) = true;
      return false;
    };
    if (!stored_->ForEach(EContent::kObject, note_first) || !stored_->ForEach(EContent::kPicture, note_first)) {
      Refuse(Place() + " cannot be read, see the log");
    }
  }

  void ReadIds() {
    catalogue_.id = database_->QueryText("SELECT value FROM platform.host_values WHERE name = 'store_id'");
    std::string text;
    const int error = store_.exists ? place_.ReadId(text) : ENOENT;
    if (error == ENOENT) {
      return;
    }
    if (error != 0) {
      Refuse(Place() + ": store.id cannot be read: " + HostSystem::ErrorText(error));
    }
    store_.id = text.substr(0, kIdLength);
    if (!IsHex(store_.id, kIdLength)) {
      Refuse(Place() + ": store.id holds no id");
    }
  }

  void LookAtCatalogue() {
    catalogue_.next_id = database_->QueryText("SELECT value FROM platform.host_values WHERE name = 'next_store_id'");
    const std::string rows =
        "(SELECT COUNT(*) FROM (SELECT 1 FROM platform.local_object LIMIT 1) AS objects) + "
        "(SELECT COUNT(*) FROM (SELECT 1 FROM platform.local_object_task LIMIT 1) AS tasks)";
    catalogue_.has_rows = database_->QueryNumber("SELECT " + rows + " AS value") > 0;
    catalogue_.is_new = !catalogue_.has_rows && !database_->HasGivenIds();
    if (!store_.IsEmpty()) {
      LookForNamedFile("local_object");
      LookForNamedFile("local_object_task");
    }
  }

  void LookForNamedFile(const std::string& table) {
    database_->Query(std::string("SELECT url FROM platform.") + table + " ORDER BY id DESC LIMIT " + kSample, {"url"},
                     [this](const db_layer::IRow& row) {
                       StoredName name;
                       std::uint64_t size = 0;
                       catalogue_.names_stored_file =
                           catalogue_.names_stored_file || (ParseOwnText(std::string(row.GetText(0)), name) &&
                                                            stored_->GetSize(name, size) == EStoreResult::kDone);
                     });
  }

  [[noreturn]] void RefuseOtherId() const {
    if (!store_.id.empty()) {
      Refuse(Place() + " has the id " + store_.id + ", but " + Database() + " belongs to the store " + catalogue_.id +
             ": one of the two is not the right one");
    }
    const std::string belongs = ", but " + Database() + " belongs to the store " + catalogue_.id;
    if (!store_.exists || store_.IsEmpty()) {
      Refuse(Place() + (store_.exists ? " is empty" : " is missing") + belongs + ": " + place_.Doubt());
    }
    Refuse(Place() + " has no id" + belongs + ": " + place_.HowToSetId(catalogue_.id));
  }

  void ExpectFit() {
    const bool is_half_adopted = !store_.id.empty() && store_.id == catalogue_.next_id;
    if (catalogue_.names_stored_file || is_half_adopted) {
      return;
    }
    if (catalogue_.has_rows) {
      if (store_.IsEmpty()) {
        Refuse(Place() + (store_.exists ? " is empty" : " is missing") + ", but the catalogue in " + Database() +
               " holds objects: " + place_.Doubt());
      }
      Refuse(Place() + " holds nothing that " + Database() + " names: one of the two is not the right one");
    }
    if (!store_.id.empty() ? !store_.IsEmpty() : store_.has_objects && catalogue_.is_new) {
      Refuse(Database() + (catalogue_.is_new ? " is new" : " holds no objects") + ", but " + Place() +
             " holds the bytes of another catalogue: is the right database in its place?");
    }
  }

  // The store gets its id before the catalogue, because an id that only the catalogue has would look like a disk that
  // is not mounted. The catalogue notes the id before that, so that a crash or a full disk in between leaves a pair
  // whose adoption goes on at the next start.
  void Adopt() {
    if (store_.id.empty()) {
      store_.id = NewStoreId();
      database_->Run("INSERT INTO platform.host_values (name, value) VALUES ('next_store_id', " +
                     QuotedText(store_.id) + ") ON CONFLICT (name) DO UPDATE SET value = excluded.value");
      if (const int error = place_.WriteId(store_.id + "\n")) {
        Refuse(Place() + " cannot be written: " + HostSystem::ErrorText(error));
      }
    }
    database_->Run("INSERT INTO platform.host_values (name, value) VALUES ('store_id', " + QuotedText(store_.id) + ")");
    database_->Run("DELETE FROM platform.host_values WHERE name = 'next_store_id'");
  }

  std::string Place() const { return place_.Describe(); }
  std::string Database() const { return "database " + database_->GetName(); }
  [[noreturn]] static void Refuse(const std::string& line) { throw CStartFailure(kExitFailed, line); }

  const std::unique_ptr<IHostDatabase> database_;
  IStoragePlace& place_;
  const EIdentity mode_;
  std::unique_ptr<IObjectStore> stored_;
  Catalogue catalogue_;
  Store store_;
};

}  // namespace
}  // namespace details

std::string NewStoreId() {
  unsigned char bytes[details::kIdLength / 2] = {};
  if (RAND_bytes(bytes, sizeof bytes) != 1) {
    throw CStartFailure(kExitFailed, "no random number can be had for the store's id");
  }
  return HexText(bytes, sizeof bytes);
}

void MatchStoreIdentity(const db_layer::DBParam& database, IStoragePlace& place, EIdentity mode) {
  details::CMatch(database, place, mode).Run();
}

}  // namespace Tansy::Host
