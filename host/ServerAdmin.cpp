// What a server shows to those who look after it.
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AdminKeys.h"
#include "Catalogue.h"
#include "Certificate.h"
#include "DiskFigures.h"
#include "FiguresSource.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "OnlineCheck.h"
#include "Server.h"
#include "SettingsInForce.h"
#include "StartFailure.h"
#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"
#include "logging/StandardSink.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kLoopback = "127.0.0.1";
constexpr const char* kSpace = "space";
// With less room on the disk the server is not well: this is what it keeps free of stored bytes.
constexpr std::uint64_t kLeastRoom = std::uint64_t{96} << 20;

// These say what is wrong, for those who ask whether the server is well; nothing: an empty text.
std::string LookAtDatabase() {
  std::int64_t seconds = 0;
  return GetRunningSeconds(seconds) ? "" : "the catalogue cannot be read: see the log";
}

std::string LookAtStorage(IObjectStore& store) {
  return store.Look() == EStoreResult::kDone ? "" : "stored bytes cannot be looked for";
}

std::string LookAtSpace(const std::string& path, DiskRoom& room) {
  int error = 0;
  const auto folder = HostSystem::OpenFolder(path, error);
  room = {};
  if (folder == nullptr || folder->GetRoom(room.total, room.available) != 0 || room.available >= kLeastRoom) {
    return "";  // also when the system does not say
  }
  return "the disk of " + path + " is nearly full: " + std::to_string(room.available >> 20) + " MiB are left";
}

std::string LookAtLease(const CNodeLease& lease) {
  return lease.IsHeld() ? "" : "node " + lease.Name() + " does not hold its name, and writes nothing: see the log";
}

// Of the catalogue and the log, and of the stored bytes where they are files.
std::string LookAtSpace(const std::string& data_folder, const std::string& storage, CDiskFigures& figures) {
  DiskRoom room;
  std::string trouble = LookAtSpace(data_folder, room);
  if (!storage.starts_with("file:")) {
    return trouble;
  }
  const std::string trouble_of_bytes = LookAtSpace(UrlPath(storage), room);
  figures.SetRoom(room);
  return trouble.empty() ? trouble_of_bytes : trouble;
}

void TakeSigned(const std::shared_ptr<CKeys>& keys, CAdminWork& work, std::int32_t handle,
                const TansyNet::HttpServerRecv& message) {
  if (!TakeKeyRequest(keys, handle, message) && !work.Take(handle, message)) {
    TansyNet::HttpResponse response;
    response.status = 404;
    response.content_type = "application/json";
    const std::string body = "{\"error\":\"there is no such page\"}\n";
    TansyNet::CHttpServer::HttpServerSyncSend(handle, response, static_cast<std::uint32_t>(body.size()), body.data());
  }
}

}  // namespace
}  // namespace details

void CServer::OpenAccessLog() {
  if (!options_.access_log.empty()) {
    access_log_ = std::make_unique<CAccessLog>(
        options_.access_log, options_.access_log_json ? EAccessLogFormat::kJson : EAccessLogFormat::kCombined);
  }
}

std::vector<CServerHealth::Probe> CServer::HealthProbes(const std::shared_ptr<CDiskFigures>& disk) const {
  std::vector<CServerHealth::Probe> probes = {
      {"database", [] { return details::LookAtDatabase(); }},
      {"storage", [store = store_] { return details::LookAtStorage(*store); }},
      {details::kSpace,
       [this, folder = data_folder_->GetPath(), has_https = options_.NeedsCertificate(), disk] {
         disk->SetCertificateEnd(has_https ? CertificateEnd(kCertificatePath) : std::nullopt);
         return details::LookAtSpace(folder, ServedStorage(), *disk);
       }},
  };
  if (lease_ != nullptr) {
    probes.push_back({"lease", [lease = lease_.get()] { return details::LookAtLease(*lease); }});
  }
  return probes;
}

std::shared_ptr<CConsole> CServer::MakeConsole(const CredentialPair& credentials,
                                               const CAdminServer::Source& source) const {
  ConsoleSources sources;
  sources.s3_region = options_.s3_region;
  sources.figures = source;
  sources.settings = [this] {
    const std::scoped_lock lock(shown_mutex_);
    return shown_settings_;
  };
  sources.check = online_check_;
  sources.log_lines = [log = log_](std::uint64_t& number) { return log->LinesAfter(number); };
  sources.find_key = [credentials, keys = keys_](const std::string& name) -> std::optional<ConsoleKey> {
    if (name == credentials.access_key) {
      return ConsoleKey{credentials.access_key, credentials.secret_key, true, {}, true};
    }
    const std::optional<Key> key = keys->Find(name);
    return key.has_value()
               ? std::optional(ConsoleKey{key->access_key, key->secret_key, !key->read_only, key->buckets, false})
               : std::nullopt;
  };
  return std::make_shared<CConsole>(ConsoleOptions{options_.s3_port, options_.s3_https_port}, std::move(sources));
}

// Since a move the catalogue or the bytes are elsewhere than the options say.
void CServer::ShowSettings() {
  HostOptions options = options_;
  const std::scoped_lock lock(shown_mutex_);
  options.database = served_database_;
  options.storage = served_storage_;
  shown_settings_ = SettingsInForce(options);
}

// It is called on the thread that moves, too.
void CServer::NoteServed(const HostOptions& served) {
  const std::scoped_lock lock(shown_mutex_);
  served_database_ = served.database;
  served_storage_ = served.storage;
  for (const auto& now : SettingsInForce(served)) {
    for (auto& shown : shown_settings_) {
      const bool is_moved = now.first == shown.first && (now.first == "database" || now.first == "storage");
      shown.second = is_moved ? now.second : shown.second;
    }
  }
}

void CServer::EndCheck() {
  if (online_check_ != nullptr) {
    online_check_->Stop();
  }
}

// Requests under way may still hold it, but it looks at nothing any more.
void CServer::EndHealth() {
  if (health_ != nullptr) {
    health_->Stop();
    health_.reset();
  }
}

std::string CServer::ServedStorage() const {
  const std::scoped_lock lock(shown_mutex_);
  return served_storage_;
}

db_layer::DBParam CServer::ServedDatabase() const {
  const std::scoped_lock lock(shown_mutex_);
  return served_database_;
}

// This comes last: who asks before everything is open finds nobody.
void CServer::StartAdminServer(const CredentialPair& credentials) {
  const std::uint16_t port = options_.admin_port.value_or(HostOptions::kUsualAdminPort);
  if (port == 0) {
    return;
  }
  const auto disk = std::make_shared<CDiskFigures>();
  std::vector<CServerHealth::Probe> probes = HealthProbes(disk);
  for (const CServerHealth::Probe& probe : probes) {
    if (probe.name == details::kSpace) {
      probe.look();  // so that the first who asks gets figures too
    }
  }
  health_ = std::make_shared<CServerHealth>(std::move(probes));
  health_->Begin();
  const std::int64_t start_time = TansyBase::TimeUtil::Now();
  const CAdminServer::Source source = MakeFiguresSource(health_, disk, start_time);
  AdminOptions options{port, options_.admin_listen, kCertificatePath, credentials, {}};
  admin_work_ = std::make_shared<CAdminWork>(source, lease_ != nullptr);
  options.signed_requests = [keys = keys_, work = admin_work_](std::int32_t handle, TansyNet::HttpServerRecv& message) {
    details::TakeSigned(keys, *work, handle, message);
  };
  // What other nodes are writing is known to them only.
  if (lease_ == nullptr) {
    online_check_ = std::make_shared<COnlineCheck>([this](const CheckOptions& check, std::ostream& out) {
      return RunCheck(*store_, ServedDatabase(), check, out);
    });
  }
  if (options.addresses.empty()) {
    options.addresses.emplace_back(details::kLoopback);
  }
  try {
    admin_ = std::make_unique<CAdminServer>(options, source, MakeConsole(credentials, source));
    options_.admin_port = port;
    ShowSettings();
    // The console's page comes from there.
    CloudStorage::SetS3PagePort(port);
  } catch (const CStartFailure& failure) {
    if (options_.admin_port.has_value()) {
      throw;
    }
    // Another tansyd of this machine has the usual port. That is no reason not to serve.
    options_.admin_port = 0;
    EndHealth();
    HOST_LOG(logging::kNotable, "[%s]%s: there is none, give admin-port a free port.[%s(%d)]", failure.what());
  }
}

}  // namespace Tansy::Host
