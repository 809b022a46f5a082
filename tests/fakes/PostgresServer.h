// A PostgreSQL server of the tests' own: in a temporary folder, behind a Unix socket there, gone with the object or
// with the process, however that ends.
#ifndef TANSY_TESTS_FAKES_POSTGRES_SERVER_H
#define TANSY_TESTS_FAKES_POSTGRES_SERVER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

struct pg_conn;

namespace Tansy::Tests {

// Errors fail the running test. Threads: one at a time.
class CPostgresServer {
 public:
  static constexpr const char* kUser = "tansy";      // owns the database, and has no other rights
  static constexpr const char* kDatabase = "tansy";  // in the encoding that the catalogue needs
  static constexpr const char* kLocked = "locked";   // a user whose password is asked for
  static constexpr const char* kPassword = "pa:ss@word";

  // The one of this program, started when it is first asked for.
  static CPostgresServer& Shared();

  CPostgresServer();
  ~CPostgresServer();
  CPostgresServer(const CPostgresServer&) = delete;
  CPostgresServer& operator=(const CPostgresServer&) = delete;

  const std::string& GetHost() const { return folder_; }  // the folder of the socket
  // The address as an option of tansyd.
  std::string Url(const std::string& parameters = "", const std::string& database = kDatabase) const;

  void Start();
  void Stop();   // lets transactions end
  void Crash();  // as if it had been killed
  bool IsRunning() const { return pid_ > 0; }
  // Copies the data of the server, which is stopped for that; GoBack brings them back, and what came later is lost.
  // Both start the server again.
  void KeepCopy();
  void GoBack();
  // Stops all its processes where they are, and lets them go on.
  void Freeze();
  void Thaw();
  // Ends all connections of users, or those that this condition on pg_stat_activity finds. Returns their number.
  int EndConnections(const std::string& condition = "true");

  // Runs statements as the superuser.
  void Run(const std::string& sql, const std::string& database = kDatabase);
  // Rows as "a|b".
  std::vector<std::string> Rows(const std::string& sql, const std::string& database = kDatabase);
  // Begins a transaction with these statements, which lasts as long as the result.
  std::shared_ptr<void> Hold(const std::string& sql, const std::string& database = kDatabase);
  // What is wrong with a statement; "" when nothing is.
  std::string FailureOf(const std::string& sql, const std::string& database = kDatabase);
  // Takes the schema away with everything in it, and makes it anew, empty.
  void Empty();
  // Writes a database as a script, which Load runs in another one, perhaps of another server.
  void Dump(const std::string& database, const std::string& path);
  void Load(const std::string& path, const std::string& database);
  std::string GetLog() const;

 private:
  using Connection = std::unique_ptr<pg_conn, void (*)(pg_conn*)>;

  Connection Connect(const std::string& database) const;
  void Initialise();
  int RunAsUser(const std::vector<std::string>& arguments);
  pid_t Begin(const std::vector<std::string>& arguments) const;
  bool WaitUntilReady();
  void End(int signal);
  std::vector<pid_t> Processes() const;

  std::string folder_;
  uid_t user_ = 0;  // whose processes they are
  gid_t group_ = 0;
  pid_t pid_ = -1;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_FAKES_POSTGRES_SERVER_H
