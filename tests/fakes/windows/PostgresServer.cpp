#include "fakes/PostgresServer.h"

#include <stdexcept>

// There is no such server here. A case that needs one fails when it asks for it.
namespace Tansy::Tests {
namespace {

[[noreturn]] void Refuse() {
  throw std::runtime_error("the tests have no PostgreSQL server on this system");
}

}  // namespace

CPostgresServer::CPostgresServer() {
  Refuse();
}
CPostgresServer::~CPostgresServer() = default;

CPostgresServer& CPostgresServer::Shared() {
  static CPostgresServer server;
  return server;
}

std::string CPostgresServer::Url(const std::string& /*parameters*/, const std::string& /*database*/) const {
  Refuse();
}
void CPostgresServer::Start() {
  Refuse();
}
void CPostgresServer::Stop() {
  Refuse();
}
void CPostgresServer::Crash() {
  Refuse();
}
void CPostgresServer::Freeze() {
  Refuse();
}
void CPostgresServer::Thaw() {
  Refuse();
}
int CPostgresServer::EndConnections(const std::string& /*condition*/) {
  Refuse();
}
void CPostgresServer::Run(const std::string& /*sql*/, const std::string& /*database*/) {
  Refuse();
}
std::vector<std::string> CPostgresServer::Rows(const std::string& /*sql*/, const std::string& /*database*/) {
  Refuse();
}
std::shared_ptr<void> CPostgresServer::Hold(const std::string& /*sql*/, const std::string& /*database*/) {
  Refuse();
}
std::string CPostgresServer::FailureOf(const std::string& /*sql*/, const std::string& /*database*/) {
  Refuse();
}
void CPostgresServer::Empty() {
  Refuse();
}
std::string CPostgresServer::GetLog() const {
  Refuse();
}

}  // namespace Tansy::Tests
