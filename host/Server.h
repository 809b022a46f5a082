#ifndef TANSY_HOST_SERVER_H
#define TANSY_HOST_SERVER_H

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "AccessLog.h"
#include "AddressWatch.h"
#include "AdminServer.h"
#include "AdminWork.h"
#include "CommandLine.h"
#include "Console.h"
#include "Credentials.h"
#include "DataFolder.h"
#include "HostSystem/LockFile.h"
#include "HousekeepingThread.h"
#include "Keys.h"
#include "MovableStore.h"
#include "Move.h"
#include "MoveThread.h"
#include "NodeLease.h"
#include "Options.h"
#include "ServerHealth.h"
#include "StoragePlace.h"
#include "TansyCloudStorage/StorageConfig.h"

namespace logging {
class CStandardSink;
}

namespace Tansy::Host {

class CDiskFigures;
class COnlineCheck;

// A data folder with everything that lives on it. Only the thread that made it uses it.
//
// The constructor takes the folder, reads the settings, opens log, database and storage and brings the schema up to
// date, so that faults which the module would retry for ever are found here. For a check it only reads the settings.
// Every fault throws CStartFailure.
class CServer {
 public:
  explicit CServer(const CommandLine& command_line);
  ~CServer();
  CServer(const CServer&) = delete;
  CServer& operator=(const CServer&) = delete;

  // Opens all listeners. What was opened before a failure is closed again.
  void Start();
  // Gives the line "tansyd ready: ..." with addresses and ports, without secrets.
  std::string ReadyLine() const;
  // Opens the log files anew, reads the certificates and the settings again. A failure is logged and leaves things as
  // they are; so is a setting that counts from the next start only.
  void Reload();
  // Closes the listeners, lets running requests finish for a while, then closes the database.
  void Stop();

  // Is called instead of Start: compares catalogue and stored bytes on standard output. Returns the exit code.
  int Check(const CommandLine& command_line);
  // Is called instead of Start: says on standard output what a start would change. Returns the exit code.
  int CheckUpgrade();
  // Is called instead of Start: moves what is here to another place, or has the running tansyd do that. What there is
  // to say goes to standard output. Returns the exit code.
  int Move(const CommandLine& command_line);
  // Is called instead of Start: makes a backup, also of what another tansyd serves. Returns the exit code.
  int Backup(const CommandLine& command_line);

 private:
  void ReadOptions(const CommandLine& command_line, const std::string& config_path);
  void ReloadLogs();
  void ReloadSettings();
  void ApplyLiveOptions() const;
  void OpenLog();
  void Open();
  void OpenDatabase();
  void OpenSharedDatabase();
  void PrepareShared();
  void OpenStore();
  void PrepareCertificate() const;
  CloudStorage::StorageServerConfig_V1 MakeConfig(const CredentialPair& credentials) const;
  void StartObjectServer(CloudStorage::StorageServerConfig_V1 config) const;
  void StartPictureServer(CloudStorage::StorageServerConfig_V1 config) const;
  void StartS3Server(const CloudStorage::StorageServerConfig_V1& config) const;
  void WatchAddresses();
  void OpenAccessLog();
  std::shared_ptr<CConsole> MakeConsole(const CredentialPair& credentials, const CAdminServer::Source& source) const;
  void ShowSettings();
  void NoteServed(const HostOptions& served);
  db_layer::DBParam ServedDatabase() const;
  std::string ServedStorage() const;
  void EndCheck();
  void EndHealth();
  void StartAdminServer(const CredentialPair& credentials);
  std::vector<CServerHealth::Probe> HealthProbes(const std::shared_ptr<CDiskFigures>& disk) const;
  MoveHost HostOfMove();
  void TakeOver(MovedTo moved);

  HostOptions options_;
  std::string followed_moves_;  // what options mean since a move, for people
  OptionTexts given_texts_;     // on the command line
  std::string settings_path_;
  Settings settings_;  // as it was read last
  std::unique_ptr<CDataFolder> data_folder_;
  HostSystem::CLockFile database_lock_;
  std::shared_ptr<logging::CStandardSink> log_;
  std::unique_ptr<CNodeLease> lease_;  // null unless this is one of several nodes
  std::unique_ptr<IStoragePlace> place_;
  std::shared_ptr<CMovableStore> store_;
  bool follows_adapters_ = false;               // no option names the address for best-node answers
  std::unique_ptr<CAccessLog> access_log_;      // null without one
  std::shared_ptr<CKeys> keys_;                 // null until the start
  std::shared_ptr<COnlineCheck> online_check_;  // null without an admin server, and on a node
  mutable std::mutex shown_mutex_;
  // Guarded by shown_mutex_.
  std::vector<std::pair<std::string, std::string>> shown_settings_;  // in the console
  db_layer::DBParam served_database_;                                // after moves
  std::string served_storage_;
  std::shared_ptr<CServerHealth> health_;   // null without an admin server
  std::shared_ptr<CAdminWork> admin_work_;  // null without an admin server
  std::unique_ptr<CAdminServer> admin_;     // null without one
  std::unique_ptr<CAddressWatch> address_watch_;
  std::unique_ptr<CHousekeepingThread> housekeeping_;
  // The next three belong to the thread that moves.
  HostOptions served_;  // what is served now, after moves
  std::vector<MovedTo> moved_;
  std::unique_ptr<CMoveThread> move_thread_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SERVER_H
