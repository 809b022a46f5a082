#include "ServerFigures.h"

#include <cstdint>
#include <vector>

#include "TansyBase/TimeUtil.h"
#include "TansyCloudStorage/ServerLoad.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/MemoryAccount.h"
#include "TansyNet/Operation.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Host {
namespace details {
namespace {

using TansyProto::CRapidJsonProto;

constexpr int kFirstServerError = 500;

void SetNumber(CRapidJsonProto& json, const std::string& at, std::uint64_t number) {
  json.SetInt(at, static_cast<std::int64_t>(number));
}

void AddOperations(CRapidJsonProto& json) {
  std::size_t shown = 0;
  for (const TansyNet::COperation* operation : TansyNet::Operations()) {
    const TansyNet::COperation::Counts counts = operation->Read();
    std::uint64_t requests = 0;
    std::uint64_t errors = 0;
    for (std::size_t i = 0; i < counts.statuses.size(); ++i) {
      requests += counts.statuses.at(i);
      errors += TansyNet::kCountedStatuses.at(i) >= kFirstServerError ? counts.statuses.at(i) : 0;
    }
    if (requests == 0) {
      continue;
    }
    const std::string at = "/operations[" + std::to_string(++shown) + "]";
    json.SetString(at + "/service", operation->Service());
    json.SetString(at + "/operation", operation->Name());
    SetNumber(json, at + "/requests", requests);
    SetNumber(json, at + "/errors", errors);
    SetNumber(json, at + "/microseconds", counts.nanoseconds / 1000);
    SetNumber(json, at + "/bytes_in", counts.bytes_in);
    SetNumber(json, at + "/bytes_out", counts.bytes_out);
  }
}

void AddLoad(CRapidJsonProto& json) {
  const TansyNet::ServerLoad net = TansyNet::CHttpServer::Load();
  SetNumber(json, "/connections/open", net.connections);
  SetNumber(json, "/connections/busy", net.busy_connections);
  SetNumber(json, "/connections/limit", net.most_connections);
  const auto& memory = TansyNet::CMemoryAccount::Process();
  SetNumber(json, "/memory/used",
            memory.Used(TansyNet::MemoryUse::kArriving) + memory.Used(TansyNet::MemoryUse::kAnswers) +
                memory.Used(TansyNet::MemoryUse::kWork));
  SetNumber(json, "/memory/limit", memory.Limit());
  CloudStorage::ServerLoad load;
  if (CloudStorage::GetServerLoad(load)) {
    SetNumber(json, "/tasks/running", load.tasks);
    SetNumber(json, "/tasks/limit", load.most_tasks);
    SetNumber(json, "/catalogue/buckets", load.buckets);
    SetNumber(json, "/catalogue/objects", load.objects);
    SetNumber(json, "/catalogue/bytes", load.object_bytes);
    SetNumber(json, "/catalogue/uploads", load.open_uploads);
  }
}

}  // namespace
}  // namespace details

std::string ServerFiguresJson(const MetricsSource& source) {
  TansyProto::CRapidJsonProto json;
  const std::int64_t now = TansyBase::TimeUtil::Now();
  json.SetString("/version", TANSY_VERSION);
  json.SetInt("/time", now);
  json.SetInt("/uptime", now - source.start_time);
  json.SetBool("/ready", source.health.IsWell());
  for (const HealthPart& part : source.health.parts) {
    json.SetString("/parts/" + part.name, part.trouble.empty() ? "well" : part.trouble);
  }
  if (source.certificate_ends.has_value()) {
    json.SetInt("/certificate_end", *source.certificate_ends);
  }
  details::AddLoad(json);
  details::AddOperations(json);
  return json.Serialize();
}

}  // namespace Tansy::Host
