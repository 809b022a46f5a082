#include "Backend.h"

#include "fakes/CephCluster.h"
#include "fakes/PostgresServer.h"
#include "support/TansydTest.h"

namespace prove {

CBackend::CBackend(EDatabase database, EStorage storage, const std::string& data, const std::string& shared)
    : data_(data) {
  if (database == EDatabase::kPostgres) {
    postgres_ = &Tansy::Tests::CPostgresServer::Shared();
    StartDatabase();
    postgres_->Run("DROP SCHEMA IF EXISTS platform CASCADE");
    arguments_ = {"--database", postgres_->Url()};
  }
  if (storage == EStorage::kPool) {
    Tansy::Tests::CCephCluster& cluster = Tansy::Tests::CCephCluster::Shared();
    arguments_.insert(arguments_.end(), {"--storage", cluster.Url(cluster.NewNamespace())});
  } else if (!shared.empty()) {
    objects_ = shared;
    arguments_.insert(arguments_.end(), {"--storage", "file:" + shared});
  } else {
    objects_ = data + "/objects";
  }
}

std::vector<std::string> CBackend::Query(const std::string& statement) const {
  if (postgres_ != nullptr) {
    return postgres_->Rows("SET search_path TO platform; " + statement);
  }
  return system_tests::Query(data_ + "/catalogue.db", statement);
}

void CBackend::AgeUploads() const {
  // Without the triggers, which write the time of now.
  for (const char* table : {"local_object_task", "local_upload", "local_upload_part"}) {
    postgres_->Run(std::string("SET session_replication_role = replica; UPDATE platform.") + table +
                   " SET update_time = '2020-01-01 00:00:00'");
  }
}

void CBackend::CrashDatabase() {
  postgres_->Crash();
}

void CBackend::StartDatabase() {
  postgres_->Start();
}

}  // namespace prove
