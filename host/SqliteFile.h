#ifndef TANSY_HOST_SQLITE_FILE_H
#define TANSY_HOST_SQLITE_FILE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace Tansy::Host {

// A connection of the host's own to a SQLite file, which is attached as `platform` as the module's connections attach
// it. It serves the start, and looks at a file that must not change; the running server uses db_layer.
//
// One thread uses it. Errors: it throws CStartFailure with kExitFailed and a line that names the file.
class CSqliteFile {
 public:
  enum class EAccess {
    kChange,
    kLook,  // changes nothing, not even the files that SQLite keeps beside a database
  };

  // One row of an answer, valid while the visitor runs.
  class CRow {
   public:
    explicit CRow(sqlite3_stmt* statement) : statement_(statement) {}
    std::string Text(int column) const;  // "" for NULL
    long long Number(int column) const;

   private:
    sqlite3_stmt* statement_;
  };

  CSqliteFile(const std::string& file, EAccess access);

  // Runs several statements as they are.
  void RunScript(const std::string& sql, const std::string& name);
  // Runs one statement; the values stand for ?1, ?2 and so on.
  void Run(const std::string& sql, const std::vector<std::string>& values = {});
  void Query(const std::string& sql, const std::function<void(const CRow&)>& visitor);
  // Gives the first column of the first row; 0 or "" when there is no row.
  long long QueryNumber(const std::string& sql);
  std::string QueryText(const std::string& sql);

  const std::string& GetPath() const { return file_; }

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
