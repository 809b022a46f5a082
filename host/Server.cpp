#include "Server.h"

#include <atomic>
#include <cerrno>
#include <iostream>
#include <string_view>
#include <utility>
#include <vector>

#include "Addresses.h"
#include "Backup.h"
#include "Callbacks.h"
#include "Catalogue.h"
#include "Certificate.h"
#include "CheckCommand.h"
#include "CheckRequest.h"
#include "CheckUpgrade.h"
#include "Configuration.h"
#include "Factory.h"
#include "FirstParts.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "HostSystem/Process.h"
#include "ListeningFile.h"
#include "Locks.h"
#include "MoveRequest.h"
#include "MovedMark.h"
#include "NodeLease.h"
#include "OSAL/Osal.h"
#include "PostgresDatabase.h"
#include "QuietLog.h"
#include "Restore.h"
#include "Schema.h"
#include "StartFailure.h"
#include "StoragePlaces.h"
#include "StoreIdentity.h"
#include "TansyCloudStorage/Catalogue.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyCloudStorage/PictureServer.h"
#include "TansyCloudStorage/S3Server.h"
#include "TansyNet/HttpServer.h"
#include "db_layer/CommitBarrier.h"
#include "db_layer/DbLayer.h"
#include "db_layer/SharedDatabase.h"
#include "logging/StandardSink.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kModule = "platform";
constexpr const char* kSettingsFile = "tansyd.toml";
constexpr const char* kKeySealFile = "key-seal";
constexpr std::uint32_t kRepeatWindowMs = 1000;
constexpr std::size_t kShownLogLines = 1000;  // in the console
// The time that requests have to end when the stop signal comes. The sender of the signal waits for as long as one
// client stalls, and service managers kill a process after some ten seconds.
constexpr std::uint32_t kDrainMs = 5000;
constexpr std::uint32_t kAddressPeriodMs = 5000;
// Another node that begins at the same time is done by then.
constexpr int kPrepareTries = 10;
constexpr std::uint32_t kPreparePauseMs = 500;

void CloseListeners() {
  CloudStorage::SetObjectServerEnable(false);
  CloudStorage::SetPicServerEnable(false);
  CloudStorage::SetS3ServerEnable(false);
}

// Removes the first parts of tasks that have ended. No writer of an earlier run is left at this time.
void RemoveDeadFirstParts() {
  std::vector<DeadFirstPart> dead;
  FindDeadFirstParts(&GetTaskIds, dead);
  for (const DeadFirstPart& part : dead) {
    RemoveFirstPart(part.name);
  }
}

// Another node may be reading the bytes of an object that is removed here.
bool FreeLater(const StoredName& name) {
  return ReleaseSoon(LocationText(name));
}

std::atomic<const CNodeLease*> g_lease{nullptr};  // null once this process is no node any more

// Another process that has taken this node's name over has its uploads too.
bool HasLease() {
  const CNodeLease* const lease = g_lease;
  return lease != nullptr && lease->IsHeld();
}

void FinishRequests(std::uint32_t drain_ms) {
  if (!TansyNet::CHttpServer::Shutdown(drain_ms)) {
    HOST_LOG(logging::kNotable, "[%s]requests were cut off after %u ms.[%s(%d)]", drain_ms);
  }
  // This comes last, because it ends the threads that serve both protocols.
  CloudStorage::UninitPicServer();
}

// Closes what a start has opened before it failed.
void CloseAgain() {
  CloseListeners();
  FinishRequests(0);
}

[[noreturn]] void FailStart(const std::string& what) {
  const std::string reason = TansyNet::CHttpServer::LastError();
  throw CStartFailure(kExitFailed, what + " cannot be opened: " + (reason.empty() ? "see the log" : reason));
}

// The ports of one server, as the options name them; 0 means that there is no such listener.
struct ServerPorts {
  bool has_wan = false;
  std::uint16_t plain = 0;
  std::uint16_t wan = 0;
  std::uint16_t https = 0;
  std::uint16_t wan_https = 0;
};

void SetPorts(CloudStorage::StorageServerConfig_V1& config, const ServerPorts& ports) {
  config.wan_enable = ports.has_wan;
  config.upload_port = config.download_port = ports.plain;
  config.wan_port = config.wan_download_port = ports.wan;
  config.https_port = config.https_download_port = ports.https;
  config.https_wan_port = config.https_wan_download_port = ports.wan_https;
}

std::string ListenerText(const HostOptions& options, std::uint16_t port, std::uint16_t https_port) {
  const std::string host = UrlHost(options.local_ip);
  const std::string plain = port != 0 ? " http://" + host + ":" + std::to_string(port) : "";
  const std::string secure = https_port != 0 ? " https://" + host + ":" + std::to_string(https_port) : "";
  return plain + secure;
}

}  // namespace
}  // namespace details

CServer::CServer(const CommandLine& command_line) {
  // Wrong options end the start before anything is made or touched.
  FoundSettings found = FindSettings(command_line.texts);
  settings_ = std::move(found.settings);
  // A relative path counts from where the program was started, which is not known any more once it is in its data
  // folder.
  const std::string log_file =
      command_line.texts.contains("log-file") ? HostSystem::AbsolutePath(command_line.texts.at("log-file")) : "";

  using EUse = CDataFolder::EUse;
  const bool only_looks = !command_line.Work().empty();
  data_folder_ = std::make_unique<CDataFolder>(found.data, only_looks ? EUse::kLook : EUse::kServe);
  ExpectRestored();
  ReadOptions(command_line, found.config_path);
  if (!log_file.empty()) {
    options_.log_file = log_file;
  }
  if (only_looks) {
    options_.log_file.clear();  // the log file belongs to the running server
    OpenLog();
    return;
  }
  ForgetCheckRequests();
  ForgetMoveRequests();
  OpenLog();
  Open();
}

void CServer::Open() {
  OpenDatabase();
  OpenStore();
}

CServer::~CServer() {
  admin_.reset();
  EndCheck();
  if (admin_work_ != nullptr) {
    admin_work_->Stop();
  }
  EndHealth();
  keys_.reset();
  access_log_.reset();
  address_watch_.reset();
  move_thread_.reset();
  housekeeping_.reset();
  CloudStorage::ShareCatalogue("");
  db_layer::Module_Unregister(details::kModule);
  db_layer::SetCommitBarrier({});
  db_layer::SetPostgresPrelude({});
  details::g_lease = nullptr;
}

void CServer::ReadOptions(const CommandLine& command_line, const std::string& config_path) {
  given_texts_ = command_line.texts;
  settings_path_ = config_path;
  if (config_path.empty()) {
    settings_path_ = data_folder_->GetPath() + "/" + details::kSettingsFile;
    ReadSettings(settings_path_, false, settings_);
  }
  ApplyOptions(options_, settings_.texts, "settings file " + settings_path_ + ": ", "", kExitFailed);
  ApplyOptions(options_, command_line.texts, "", "--", kExitUsage);
  CheckPorts(options_);
  followed_moves_ = FollowMoves(ReadMovedMark(), options_);
  follows_adapters_ = options_.local_ip.empty();
  if (follows_adapters_) {
    options_.local_ip = ChooseLocalIp(options_.listen, AdapterAddresses().value_or(std::vector<std::string>{}));
  }
}

void CServer::OpenLog() {
  std::string error;
  logging::StandardSinkOptions sink_options;
  sink_options.file_path = options_.log_file;
  sink_options.kept_lines = details::kShownLogLines;
  log_ = logging::CStandardSink::Create(sink_options, error);
  if (log_ == nullptr) {
    throw CStartFailure(kExitFailed, "log file " + options_.log_file + " cannot be opened: " + error);
  }
  logging::SetLowestLevel(options_.log_level);
  logging::SetRepeatWindow(details::kRepeatWindowMs);
  logging::SetSink(std::make_shared<CQuietLog>(log_));
}

void CServer::OpenDatabase() {
  const db_layer::DBParam& database = options_.database;
  log_->AddSecret(database.password);
  if (!followed_moves_.empty()) {
    HOST_LOG(logging::kNotable, "[%s]since a move %s: the options name what was before.[%s(%d)]",
             followed_moves_.c_str());
  }
  db_layer::SetSqliteFullDurability(options_.full_durability);
  db_layer::SetPostgresFullDurability(options_.full_durability);
  // From the first change on until the pool is there, this keeps a server's database for this process.
  std::unique_ptr<CPostgresDatabase> held;
  if (!options_.node_name.empty()) {
    OpenSharedDatabase();
  } else if (database.type == db_layer::kPostgresql) {
    held = std::make_unique<CPostgresDatabase>(database);
    PreparePostgresSchema(*held, PostgresSchemaScripts(), StorageVolumes(options_.storage));
  } else {
    LockDatabase(database.database, database_lock_);
    PrepareSqliteSchema(database.database, SqliteSchemaScripts(), StorageVolumes(options_.storage));
  }
  if (!db_layer::Module_Register(database, details::kModule)) {
    throw CStartFailure(kExitFailed, "database " + db_layer::DescribeDatabase(database) +
                                         " cannot be opened: " + db_layer::LastRegisterError(details::kModule));
  }
}

// The nodes find each other through the database, so its schema is there before the first of them serves. What only one
// may do is done with the database for this process alone, before it joins the others.
void CServer::OpenSharedDatabase() {
  const db_layer::DBParam& database = options_.database;
  if (database.type != db_layer::kPostgresql) {
    throw CStartFailure(kExitFailed, "node-name needs a database that several can share: postgresql://...");
  }
  place_ = FindStoragePlace(options_.storage);
  for (int tries = 1; !IsPreparedForNodes(database, StorageVolumes(options_.storage)); ++tries) {
    try {
      PrepareShared();
    } catch (const CStartFailure&) {
      // Another node may be at it.
      if (tries == details::kPrepareTries) {
        throw;
      }
      OSAL_Sleep(details::kPreparePauseMs);
    }
  }
  NodeIdentity identity{options_.node_name, HostSystem::HostName() + ":" + data_folder_->GetPath(),
                        HostSystem::MachineStart(),
                        UrlHost(options_.local_ip) + ":" + std::to_string(options_.object_port)};
  lease_ = std::make_unique<CNodeLease>(database, std::move(identity));
  lease_->Begin();
  db_layer::SetPostgresPrelude([lease = lease_.get()] { return lease->Prelude(); });
}

void CServer::PrepareShared() {
  CPostgresDatabase alone(options_.database);
  PreparePostgresSchema(alone, PostgresSchemaScripts(), StorageVolumes(options_.storage));
  place_->ExpectFree();
  MatchStoreIdentity(options_.database, *place_, EIdentity::kAdopt);
}

void CServer::OpenStore() {
  if (lease_ != nullptr) {
    MatchStoreIdentity(options_.database, *place_, EIdentity::kLook);
    place_->Share();
    store_ = std::make_shared<CMovableStore>(place_->Open(options_.full_durability, EStoreUse::kShare));
  } else {
    SettleMoves(options_, ReadMovedMark());
    place_ = FindStoragePlace(options_.storage);
    place_->ExpectFree();
    MatchStoreIdentity(options_.database, *place_, EIdentity::kAdopt);
    place_->Lock();
    store_ = std::make_shared<CMovableStore>(place_->Open(options_.full_durability, EStoreUse::kServe));
  }
  served_ = options_;
  NoteServed(served_);
  db_layer::SetCommitBarrier([store = store_](const std::vector<std::string_view>& statements, std::string& error) {
    return store->MakeDurable(statements, error);
  });
}

int CServer::Check(const CommandLine& command_line) {
  return RunCheckCommand(command_line, options_, *data_folder_, std::cout);
}

int CServer::CheckUpgrade() {
  return RunCheckUpgrade(options_, std::cout);
}

int CServer::Backup(const CommandLine& command_line) {
  if (!options_.node_name.empty()) {
    throw CStartFailure(kExitFailed, "several nodes share this storage: use pg_dump, then a snapshot of the storage");
  }
  const BackupOrder order{command_line.backup_path, command_line.backup_full, command_line.backup_even_damaged};
  return MakeBackup(order, options_, *data_folder_, settings_path_, std::cout);
}

int CServer::Move(const CommandLine& command_line) {
  MoveHost host;
  host.say = [](const std::string& line) { std::cout << line << std::endl; };
  MoveRequest request;
  request.work = command_line.move_cancel ? EMoveWork::kCancel : EMoveWork::kMove;
  request.order = {command_line.move_database, command_line.move_storage, command_line.move_dry_run,
                   command_line.move_force};
  if (command_line.move_delete) {
    DeleteMoved(host.say);
    return kExitDone;
  }
  if (data_folder_->IsInUse()) {
    return AskForMove(
        request, [this] { return data_folder_->IsInUse(); }, std::cout);
  }
  data_folder_->Lock();
  ForgetMoveRequests();
  Open();
  const auto say = host.say;
  host = HostOfMove();
  host.say = say;
  host.is_stopping = [] { return false; };
  const int exit_code = DoMoveWork(request, host);
  db_layer::Module_Unregister(details::kModule);
  return exit_code;
}

// Is called on the thread that moves.
MoveHost CServer::HostOfMove() {
  MoveHost host;
  host.options = served_;
  host.is_node = !options_.node_name.empty();
  host.store = store_;
  host.housekeeping = housekeeping_ == nullptr ? nullptr : &housekeeping_->Batches();
  host.take_over = [this](MovedTo moved) { TakeOver(std::move(moved)); };
  return host;
}

void CServer::TakeOver(MovedTo moved) {
  served_ = moved.options;
  log_->AddSecret(served_.database.password);
  NoteServed(served_);
  if (housekeeping_ != nullptr) {
    housekeeping_->SetDatabase(served_.database);
  }
  moved_.push_back(std::move(moved));
}

void CServer::Start() {
  bool created = false;
  const CredentialPair credentials = ObtainCredentials(settings_, settings_path_, created);
  // The access key stays readable, because the log has to show whose signature is refused.
  log_->AddSecret(credentials.secret_key);
  if (created) {
    HOST_LOG(logging::kNotable, "[%s]made new credentials, see %s.[%s(%d)]", settings_path_.c_str());
  } else if (!settings_.secret_key.empty() && HostSystem::IsReadableByOthers(settings_path_)) {
    HOST_LOG(logging::kError, "[%s]%s holds the secret key and can be read by others.[%s(%d)]", settings_path_.c_str());
  }
  details::RemoveDeadFirstParts();
  OpenAccessLog();
  if (options_.NeedsCertificate()) {
    PrepareCertificate();
  }

  TansyNet::CHttpServer::SetListenAddresses(options_.listen);
  ApplyLiveOptions();
  CloudStorage::StorageServerConfig_V1 config = MakeConfig(credentials);
  CloudStorage::ShareCatalogue(options_.node_name);
  try {
    StartObjectServer(config);
    keys_ = std::make_shared<CKeys>(details::kKeySealFile, lease_ != nullptr);
    keys_->Begin();
    StartS3Server(config);
    StartPictureServer(config);
    StartAdminServer(credentials);
  } catch (...) {
    details::CloseAgain();
    throw;
  }
  WriteListeningFile(options_);
  const HousekeepingRules rules = {options_.keep_failed_seconds, options_.keep_removed_days * 24 * 3600};
  housekeeping_ = std::make_unique<CHousekeepingThread>(store_, options_.database, rules, lease_.get());
  housekeeping_->Begin();
  move_thread_ = std::make_unique<CMoveThread>([this] { return HostOfMove(); });
  move_thread_->Begin();
  WatchAddresses();
}

void CServer::WatchAddresses() {
  if (follows_adapters_) {
    address_watch_ = std::make_unique<CAddressWatch>(
        options_.listen, options_.local_ip, [](const std::string& ip) { CloudStorage::UpdateLocalServerIp(ip); });
    address_watch_->Start(details::kAddressPeriodMs);
  }
}

void CServer::PrepareCertificate() const {
  std::vector<std::string> names = AdapterAddresses().value_or(std::vector<std::string>{});
  names.push_back(options_.local_ip);
  names.push_back(options_.wan_ip);
  names.push_back(HostSystem::HostName());
  if (MakeCertificateIfMissing(kCertificatePath, names)) {
    HOST_LOG(logging::kNotable, "[%s]made a self-signed certificate, %s.crt.[%s(%d)]", kCertificatePath);
  }
  const std::string error = CheckCertificate(kCertificatePath);
  if (!error.empty()) {
    throw CStartFailure(kExitFailed, error);
  }
}

CloudStorage::StorageServerConfig_V1 CServer::MakeConfig(const CredentialPair& credentials) const {
  CloudStorage::StorageServerConfig_V1 config;
  config.ip = options_.local_ip;
  config.wan_ip = options_.wan_ip;
  config.ak = credentials.access_key;
  config.sk = credentials.secret_key;
  details::g_lease = lease_.get();
  RegisterCallbacks(store_, config,
                    lease_ == nullptr ? SharedStorage() : SharedStorage{&details::FreeLater, &details::HasLease});
  KeepRoomBesideFirstParts();
  return config;
}

void CServer::StartObjectServer(CloudStorage::StorageServerConfig_V1 config) const {
  details::SetPorts(config, {options_.HasWanObjects(), options_.object_port, options_.wan_object_port,
                             options_.object_https_port, options_.wan_object_https_port});
  const auto factory = MakeFactory(options_.database);
  const CloudStorage::StorageServerConfig& plain = config;
  const int result = options_.object_https_port == 0 ? CloudStorage::InitObjectServer(plain, factory)
                                                     : CloudStorage::InitObjectServer(config, factory);
  if (result != 0) {
    details::FailStart("object listener");
  }
  if (!CloudStorage::IsCatalogueLoaded()) {
    // Objects that could not be read would look as if they did not exist.
    throw CStartFailure(kExitFailed, "the catalogue in database " + db_layer::DescribeDatabase(options_.database) +
                                         " cannot be read: see the log");
  }
}

void CServer::StartPictureServer(CloudStorage::StorageServerConfig_V1 config) const {
  details::SetPorts(config, {options_.HasWanPictures(), options_.picture_port, options_.wan_picture_port,
                             options_.picture_https_port, options_.wan_picture_https_port});
  const CloudStorage::StorageServerConfig& plain = config;
  const int result =
      options_.picture_https_port == 0 ? CloudStorage::InitPicServer(plain) : CloudStorage::InitPicServer(config);
  if (result != 0) {
    details::FailStart("picture listener");
  }
}

// This comes before the picture server, which starts the threads that serve the requests of all servers.
void CServer::StartS3Server(const CloudStorage::StorageServerConfig_V1& config) const {
  if (!options_.HasS3()) {
    return;
  }
  CloudStorage::S3ServerConfig s3;
  static_cast<CloudStorage::StorageServerConfig_V1&>(s3) = config;
  details::SetPorts(s3, {false, options_.s3_port, 0, options_.s3_https_port, 0});
  s3.region = options_.s3_region;
  s3.domain = options_.s3_domain;
  s3.v2_links = options_.s3_v2_links;
  s3.cors_origins = options_.s3_cors_origins;
  if (CloudStorage::InitS3Server(s3) != 0) {
    details::FailStart("S3 listener");
  }
}

std::string CServer::ReadyLine() const {
  const std::string s3 =
      options_.HasS3() ? ", S3" + details::ListenerText(options_, options_.s3_port, options_.s3_https_port) : "";
  // The folder's path is the rest of the line, because it may hold anything.
  return "tansyd ready: objects" + details::ListenerText(options_, options_.object_port, options_.object_https_port) +
         ", pictures" + details::ListenerText(options_, options_.picture_port, options_.picture_https_port) + s3 +
         ", data " + data_folder_->GetPath();
}

void CServer::Stop() {
  HOST_LOG(logging::kNotable, "[%s]stopping.[%s(%d)]");
  admin_.reset();
  if (admin_work_ != nullptr) {
    admin_work_->Stop();
  }
  details::CloseListeners();
  RemoveListeningFile();
  address_watch_.reset();
  details::FinishRequests(details::kDrainMs);
  EndCheck();
  keys_->Stop();
  EndHealth();
  access_log_.reset();
  move_thread_.reset();
  // This comes last, because it may be busy for a while: by now no client waits for anything.
  housekeeping_.reset();
  CloudStorage::ShareCatalogue("");
  db_layer::Module_Unregister(details::kModule);
  if (lease_ != nullptr) {
    lease_->End();
  }
  HOST_LOG(logging::kNotable, "[%s]stopped.[%s(%d)]");
}

}  // namespace Tansy::Host
