// What a running server reads again.
#include <string>

#include "HostLog.h"
#include "Server.h"
#include "StartFailure.h"
#include "TansyCloudStorage/ObjectServer.h"
#include "TansyNet/HttpServer.h"
#include "logging/StandardSink.h"

namespace Tansy::Host {
namespace details {
namespace {

// All texts, those of the command line before those of the file.
OptionTexts Together(const OptionTexts& file, const OptionTexts& given) {
  OptionTexts all = given;
  all.insert(file.begin(), file.end());
  return all;
}

}  // namespace
}  // namespace details

void CServer::Reload() {
  ReloadLogs();
  ReloadSettings();
  if (options_.NeedsCertificate() && TansyNet::CHttpServer::ReloadCertificates() != 0) {
    HOST_LOG(logging::kError, "[%s]the certificate was not replaced: %s.[%s(%d)]",
             TansyNet::CHttpServer::LastError().c_str());
    return;
  }
  HOST_LOG(logging::kNotable, "[%s]log file and certificates read again.[%s(%d)]");
}

void CServer::ReloadLogs() {
  std::string error;
  if (!log_->Reopen(error)) {
    HOST_LOG(logging::kError, "[%s]the log file cannot be opened again: %s.[%s(%d)]", error.c_str());
  }
  if (access_log_ != nullptr) {
    error = access_log_->Reopen();
    if (!error.empty()) {
      HOST_LOG(logging::kError, "[%s]the access log cannot be opened again: %s.[%s(%d)]", error.c_str());
    }
  }
}

// What the command line says goes before the file, now as at the start.
void CServer::ReloadSettings() {
  try {
    Settings fresh;
    const bool is_own_file = given_texts_.contains("config");
    if (!ReadSettings(settings_path_, is_own_file, fresh) && is_own_file) {
      throw CStartFailure(kExitFailed, "settings file " + settings_path_ + " does not exist");
    }
    HostOptions now;
    ApplyOptions(now, fresh.texts, "settings file " + settings_path_ + ": ", "", kExitFailed);
    ApplyOptions(now, given_texts_, "", "--", kExitUsage);
    const ChangedOptions changed =
        CompareOptions(details::Together(settings_.texts, given_texts_), details::Together(fresh.texts, given_texts_));
    for (const std::string& name : changed.others) {
      HOST_LOG(logging::kNotable, "[%s]%s has changed, which counts from the next start.[%s(%d)]", name.c_str());
    }
    if (fresh.access_key != settings_.access_key || fresh.secret_key != settings_.secret_key) {
      HOST_LOG(logging::kNotable, "[%s]the keys may have changed, which counts from the next start.[%s(%d)]");
    }
    options_.log_level = now.log_level;
    options_.memory_limit_mib = now.memory_limit_mib;
    options_.require_date_minutes = now.require_date_minutes;
    options_.server_timing = now.server_timing;
    ApplyLiveOptions();
    ShowSettings();
    for (const std::string& name : changed.live) {
      settings_.texts.erase(name);
      if (const auto found = fresh.texts.find(name); found != fresh.texts.end()) {
        settings_.texts.insert(*found);
      }
      HOST_LOG(logging::kNotable, "[%s]%s has changed, which counts from now on.[%s(%d)]", name.c_str());
    }
  } catch (const CStartFailure& failure) {
    HOST_LOG(logging::kError, "[%s]the settings stay as they are: %s.[%s(%d)]", failure.what());
  }
}

void CServer::ApplyLiveOptions() const {
  logging::SetLowestLevel(options_.log_level);
  TansyNet::HttpServerLimits limits;
  limits.memory_bytes = std::uint64_t{options_.memory_limit_mib} << 20;
  TansyNet::CHttpServer::SetLimits(limits);
  TansyNet::CHttpServer::SetServerTiming(options_.server_timing);
  CloudStorage::SetSignatureDateWindow(options_.require_date_minutes);
}

}  // namespace Tansy::Host
