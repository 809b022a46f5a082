#ifndef TANSY_HOST_SQLITE_FILE_H
#define TANSY_HOST_SQLITE_FILE_H

#include <memory>
#include <string>
#include <vector>

#include "HostDatabase.h"

struct sqlite3;
struct sqlite3_stmt;

namespace Tansy::Host {

// A connection of the host's own to a SQLite file, which is attached as `platform` as the module's connections attach
// it. It serves the start, and looks at a file that must not change; the running server uses db_layer.
//
// One thread uses it. Errors: it throws CStartFailure with kExitFailed and a line that names the file.
class CSqliteFile final : public IHostDatabase {
 public:
  enum class EAccess {
    kChange,
    kLook,  // changes nothing, not even the files that SQLite keeps beside a database
  };

  CSqliteFile(const std::string& file, EAccess access);

  // Makes a file that holds what the database holds at one instant, whoever writes to it meanwhile. The copy is one
  // file alone, and on stable storage. When it fails, nothing of it is left.
  void CopyTo(const std::string& file);

  // Runs several statements as they are.
  void RunScript(const std::string& sql, const std::string& name);
  // Runs one statement; the values stand for ?1, ?2 and so on.
  void Run(const std::string& sql, const std::vector<std::string>& values);
  void Run(const std::string& sql) override { Run(sql, {}); }
  // The columns must be named in the order in which the query gives them.
  void Query(const std::string& sql, const std::vector<std::string>& columns,
             const db_layer::RowVisitor& visitor) override;
  bool HasGivenIds() override;
  std::string GetName() const override { return file_; }

 private:
  struct CloseDatabase {
    void operator()(sqlite3* database) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, void (*)(sqlite3_stmt*)>;

  Statement Prepare(const std::string& sql, const std::vector<std::string>& values);
  [[noreturn]] void Fail(const std::string& what);

  std::string file_;
  std::unique_ptr<sqlite3, CloseDatabase> database_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SQLITE_FILE_H
