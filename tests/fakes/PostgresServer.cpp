#include "fakes/PostgresServer.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "fakes/ChildProcess.h"
#include "fakes/StoppedProcess.h"
#include "fakes/TempFolder.h"

namespace Tansy::Tests {
namespace {

constexpr std::chrono::seconds kPatience{60};

using Answer = std::unique_ptr<PGresult, void (*)(PGresult*)>;

// What is wrong with statements; "" when nothing is.
std::string FailureOn(PGconn* connection, const std::string& sql) {
  const Answer answer(PQexec(connection, sql.c_str()), &PQclear);
  const ExecStatusType status = PQresultStatus(answer.get());
  return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK ? "" : PQerrorMessage(connection);
}

std::string Program(const std::string& name) {
  return std::string(TANSY_POSTGRESQL_PROGRAMS) + "/" + name;
}

// The server refuses to run as root.
void ChooseUser(uid_t& user, gid_t& group) {
  user = ::getuid();
  group = ::getgid();
  if (user == 0) {
    const passwd* entry = ::getpwnam("postgres");
    entry = entry == nullptr ? ::getpwnam("nobody") : entry;
    ASSERT_NE(entry, nullptr);
    user = entry->pw_uid;
    group = entry->pw_gid;
  }
}

}  // namespace

CPostgresServer& CPostgresServer::Shared() {
  static CPostgresServer server;
  return server;
}

CPostgresServer::Connection CPostgresServer::Connect(const std::string& database) const {
  const std::string address = "host=" + folder_ + " user=postgres connect_timeout=30 dbname=" + database +
                              " options='-c client_min_messages=error'";
  return {PQconnectdb(address.c_str()), &PQfinish};
}

CPostgresServer::CPostgresServer() {
  ChooseUser(user_, group_);
  std::string pattern = "/tmp/tansy-pg-XXXXXX";  // a socket's path must be short
  if (::mkdtemp(pattern.data()) == nullptr || (::getuid() == 0 && ::chown(pattern.c_str(), user_, group_) != 0)) {
    ADD_FAILURE() << "no folder for PostgreSQL";
    return;
  }
  folder_ = pattern;
  Initialise();
  Start();
  Run(std::string("CREATE ROLE tansy LOGIN; CREATE ROLE locked LOGIN PASSWORD '") + kPassword + "'", "postgres");
  Run("CREATE DATABASE tansy OWNER tansy", "postgres");
}

CPostgresServer::~CPostgresServer() {
  End(SIGQUIT);
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string CPostgresServer::Url(const std::string& parameters, const std::string& database) const {
  std::string host;
  for (const char c : folder_) {
    host += c == '/' ? "%2F" : std::string(1, c);
  }
  return std::string("postgresql://") + kUser + "@" + host + "/" + database +
         (parameters.empty() ? "" : "?" + parameters);
}

void CPostgresServer::Initialise() {
  const std::string data = folder_ + "/data";
  ASSERT_EQ(RunAsUser({Program("initdb"), "-D", data, "-U", "postgres", "-A", "trust", "-E", "SQL_ASCII", "--locale=C",
                       "--no-sync", "--no-instructions", "--wal-segsize=1"}),
            0)
      << "initdb failed: " << GetLog();
  // No test cuts the power of this server, so it need not wait for the disk.
  std::ofstream(data + "/postgresql.conf", std::ios::app)
      << "listen_addresses = ''\nunix_socket_directories = '" << folder_
      << "'\nfsync = off\nfull_page_writes = off\nshared_buffers = 16MB\nmax_connections = 60\nmax_wal_senders = 1\n"
         "autovacuum = off\n";
  std::ofstream(data + "/pg_hba.conf") << "local all locked scram-sha-256\nlocal all all trust\n";
}

pid_t CPostgresServer::Begin(const std::vector<std::string>& arguments) const {
  std::vector<char*> pointers;
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  const std::string log = folder_ + "/log";
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    const bool is_other = ::getuid() != user_;
    if (is_other && (::setgroups(0, nullptr) != 0 || ::setgid(group_) != 0 || ::setuid(user_) != 0)) {
      ::_exit(96);
    }
    EndWithParent(parent, SIGQUIT);
    const int file = ::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    ::dup2(file, STDOUT_FILENO);
    ::dup2(file, STDERR_FILENO);
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
      ::close(descriptor);
    }
    if (::chdir(folder_.c_str()) == 0) {
      ::execv(pointers[0], pointers.data());
    }
    ::_exit(97);
  }
  return pid;
}

int CPostgresServer::RunAsUser(const std::vector<std::string>& arguments) {
  const pid_t pid = Begin(arguments);
  int status = -1;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void CPostgresServer::Start() {
  if (pid_ > 0) {
    return;
  }
  pid_ = Begin({Program("postgres"), "-D", folder_ + "/data"});
  EXPECT_TRUE(WaitUntilReady()) << "PostgreSQL does not start: " << GetLog();
}

bool CPostgresServer::WaitUntilReady() {
  const std::string address = "host=" + folder_ + " dbname=postgres user=postgres connect_timeout=10";
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline && ::waitpid(pid_, nullptr, WNOHANG) == 0) {
    if (PQping(address.c_str()) == PQPING_OK) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return false;
}

void CPostgresServer::Stop() {
  End(SIGINT);
}

void CPostgresServer::Crash() {
  End(SIGQUIT);
}

void CPostgresServer::End(int signal) {
  if (pid_ > 0) {
    Thaw();
    ::kill(pid_, signal);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
}

void CPostgresServer::KeepCopy() {
  Stop();
  EXPECT_EQ(RunAsUser({"/bin/rm", "-rf", folder_ + "/copy"}), 0);
  EXPECT_EQ(RunAsUser({"/bin/cp", "-a", folder_ + "/data", folder_ + "/copy"}), 0);
  Start();
}

void CPostgresServer::GoBack() {
  Crash();
  EXPECT_EQ(RunAsUser({"/bin/rm", "-rf", folder_ + "/data"}), 0);
  EXPECT_EQ(RunAsUser({"/bin/cp", "-a", folder_ + "/copy", folder_ + "/data"}), 0);
  Start();
}

std::vector<pid_t> CPostgresServer::Processes() const {
  std::vector<pid_t> processes = ChildrenOf(pid_);
  processes.insert(processes.begin(), pid_);
  return processes;
}

// The first process is stopped first and goes on first, so that none is missed.
void CPostgresServer::Freeze() {
  EXPECT_TRUE(StopProcess(pid_));
  for (const pid_t process : Processes()) {
    StopProcess(process);  // one that has just ended is as silent
  }
}

void CPostgresServer::Thaw() {
  for (const pid_t process : Processes()) {
    ::kill(process, SIGCONT);
  }
}

int CPostgresServer::EndConnections(const std::string& condition) {
  const auto rows = Rows(
      "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid() AND "
      "backend_type = 'client backend' AND (" +
      condition + ")");
  return static_cast<int>(rows.size());
}

void CPostgresServer::Run(const std::string& sql, const std::string& database) {
  EXPECT_EQ(FailureOf(sql, database), "") << sql;
}

std::string CPostgresServer::FailureOf(const std::string& sql, const std::string& database) {
  const Connection connection = Connect(database);
  return FailureOn(connection.get(), sql);
}

std::shared_ptr<void> CPostgresServer::Hold(const std::string& sql, const std::string& database) {
  const std::shared_ptr<PGconn> connection = Connect(database);
  EXPECT_EQ(FailureOn(connection.get(), "BEGIN; " + sql), "") << sql;
  return connection;
}

std::vector<std::string> CPostgresServer::Rows(const std::string& sql, const std::string& database) {
  const Connection connection = Connect(database);
  const Answer answer(PQexec(connection.get(), sql.c_str()), &PQclear);
  EXPECT_EQ(PQresultStatus(answer.get()), PGRES_TUPLES_OK) << sql << ": " << PQerrorMessage(connection.get());
  std::vector<std::string> rows;
  for (int row = 0; row < PQntuples(answer.get()); ++row) {
    std::string text;
    for (int column = 0; column < PQnfields(answer.get()); ++column) {
      const bool is_null = PQgetisnull(answer.get(), row, column) == 1;
      text += (column == 0 ? "" : "|") + std::string(is_null ? "NULL" : PQgetvalue(answer.get(), row, column));
    }
    rows.push_back(text);
  }
  return rows;
}

void CPostgresServer::Empty() {
  Run("DROP SCHEMA IF EXISTS platform CASCADE; CREATE SCHEMA platform AUTHORIZATION tansy");
}

// The server's user may not reach the path, so the script passes through this one's folder.
void CPostgresServer::Dump(const std::string& database, const std::string& path) {
  const std::string script = folder_ + "/script";
  EXPECT_EQ(RunAsUser({Program("pg_dump"), "-h", folder_, "-U", "postgres", "-f", script, database}), 0) << GetLog();
  std::filesystem::copy_file(script, path, std::filesystem::copy_options::overwrite_existing);
}

void CPostgresServer::Load(const std::string& path, const std::string& database) {
  const std::string script = folder_ + "/script";
  std::filesystem::copy_file(path, script, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(script, std::filesystem::perms::others_read, std::filesystem::perm_options::add);
  EXPECT_EQ(RunAsUser({Program("psql"), "-q", "-h", folder_, "-U", "postgres", "-v", "ON_ERROR_STOP=1", "-f", script,
                       database}),
            0)
      << GetLog();
}

std::string CPostgresServer::GetLog() const {
  return ReadFile(folder_ + "/log");
}

}  // namespace Tansy::Tests
