// Where the servers of a run keep rows and bytes: a file and a folder, or servers of the run's own.
#ifndef TANSY_TESTS_PROVE_MODEL_BACKEND_H
#define TANSY_TESTS_PROVE_MODEL_BACKEND_H

#include <memory>
#include <string>
#include <vector>

namespace Tansy::Tests {
class CCephCluster;
class CPostgresServer;
}  // namespace Tansy::Tests

namespace prove {

enum class EDatabase { kSqlite, kPostgres };
enum class EStorage { kFolder, kPool };

// One thread. Servers that are needed are started with it; all runs of a process share them, one after another.
class CBackend {
 public:
  // `data`: the data folder of the only tansyd. `shared`: a folder for the bytes when several use them.
  CBackend(EDatabase database, EStorage storage, const std::string& data, const std::string& shared);

  // For tansyd.
  const std::vector<std::string>& GetArguments() const { return arguments_; }
  // Rows of the catalogue as "a|b". The statement names tables without a schema.
  std::vector<std::string> Query(const std::string& statement) const;
  // Makes all uploads in parts older than they may become, while no server runs: several nodes go by the clock of the
  // database, which nobody sets.
  void AgeUploads() const;
  // Where the bytes are files; empty: nowhere.
  const std::string& GetObjectsFolder() const { return objects_; }

  // A database that is a server: as if it had been killed, and its next start.
  bool HasDatabaseServer() const { return postgres_ != nullptr; }
  void CrashDatabase();
  void StartDatabase();

 private:
  const std::string data_;
  std::string objects_;
  std::vector<std::string> arguments_;
  Tansy::Tests::CPostgresServer* postgres_ = nullptr;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_BACKEND_H
