#include "ConsoleFigures.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <string_view>

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

constexpr std::string_view kAdmin = "admin";
constexpr int kFirstServerError = 500;

struct Totals {
  std::uint64_t requests = 0;
  std::uint64_t errors = 0;
  std::uint64_t bytes_in = 0;
  std::uint64_t bytes_out = 0;
  std::array<std::uint64_t, TansyNet::kTimeBounds.size() + 1> times{};
  std::map<std::string, std::uint64_t> services;
};

std::int64_t Number(std::uint64_t number) {
  return static_cast<std::int64_t>(number);
}

void Add(Totals& totals, const TansyNet::COperation& operation) {
  const TansyNet::COperation::Counts counts = operation.Read();
  const bool is_admin = operation.Service() == kAdmin;
  for (std::size_t i = 0; i < counts.statuses.size(); ++i) {
    const std::uint64_t requests = counts.statuses.at(i);
    totals.services[operation.Service()] += requests;
    totals.requests += is_admin ? 0 : requests;
    totals.errors += is_admin || TansyNet::kCountedStatuses.at(i) < kFirstServerError ? 0 : requests;
  }
  for (std::size_t i = 0; i < counts.times.size() && !is_admin; ++i) {
    totals.times.at(i) += counts.times.at(i);
  }
  totals.bytes_in += is_admin ? 0 : counts.bytes_in;
  totals.bytes_out += is_admin ? 0 : counts.bytes_out;
}

Totals AllTotals() {
  Totals totals;
  for (const TansyNet::COperation* operation : TansyNet::Operations()) {
    Add(totals, *operation);
  }
  return totals;
}

void AddTotals(CRapidJsonProto& json, const Totals& totals) {
  constexpr double kNanosecondsPerSecond = 1e9;
  json.SetInt("/requests/total", Number(totals.requests));
  json.SetInt("/requests/errors", Number(totals.errors));
  json.SetInt("/bytes/in", Number(totals.bytes_in));
  json.SetInt("/bytes/out", Number(totals.bytes_out));
  for (std::size_t i = 0; i < TansyNet::kTimeBounds.size(); ++i) {
    json.SetNumber("/latency/bounds[" + std::to_string(i + 1) + "]",
                   static_cast<double>(TansyNet::kTimeBounds.at(i)) / kNanosecondsPerSecond);
  }
  for (std::size_t i = 0; i < totals.times.size(); ++i) {
    json.SetInt("/latency/counts[" + std::to_string(i + 1) + "]", Number(totals.times.at(i)));
  }
}

void AddServices(CRapidJsonProto& json, const Totals& totals) {
  for (const auto& [service, requests] : totals.services) {
    json.SetInt("/by_service/" + service, Number(requests));
  }
}

// The words about a trouble may hold paths and names of nodes, which are for operators.
void AddHealth(CRapidJsonProto& json, const HealthReport& health, bool is_operator) {
  json.SetBool("/ready", health.IsWell());
  for (const HealthPart& part : health.parts) {
    const std::string trouble = is_operator ? part.trouble : "trouble";
    json.SetString("/parts/" + part.name, part.trouble.empty() ? "well" : trouble);
  }
}

void AddConnections(CRapidJsonProto& json) {
  const TansyNet::ServerLoad network = TansyNet::CHttpServer::Load();
  json.SetInt("/connections/open", network.connections);
  json.SetInt("/connections/busy", Number(network.busy_connections));
  json.SetInt("/connections/limit", network.most_connections);
}

void AddMachine(CRapidJsonProto& json, const MetricsSource& source) {
  const auto& memory = TansyNet::CMemoryAccount::Process();
  json.SetInt("/memory/used", Number(memory.Used()));
  json.SetInt("/memory/limit", Number(memory.Limit()));
  json.SetInt("/space/free", Number(source.free_bytes));
  json.SetInt("/space/total", Number(source.disk_bytes));
  if (source.certificate_ends.has_value()) {
    json.SetInt("/certificate_end", *source.certificate_ends);
  }
}

void AddTasks(CRapidJsonProto& json, const CloudStorage::ServerLoad& load) {
  json.SetInt("/tasks/running", Number(load.tasks));
  json.SetInt("/tasks/limit", Number(load.most_tasks));
}

void AddCatalogue(CRapidJsonProto& json, const CloudStorage::ServerLoad& load) {
  json.SetInt("/catalogue/buckets", Number(load.buckets));
  json.SetInt("/catalogue/objects", Number(load.objects));
  json.SetInt("/catalogue/uploads", Number(load.open_uploads));
  json.SetInt("/catalogue/bytes", Number(load.object_bytes));
}

}  // namespace
}  // namespace details

std::string ConsoleFigures(const MetricsSource& source, bool is_operator) {
  const std::int64_t now = TansyBase::TimeUtil::Now();
  TansyProto::CRapidJsonProto json;
  json.SetInt("/time", now);
  json.SetInt("/uptime", now - source.start_time);
  json.SetString("/version", TANSY_VERSION);
  const details::Totals totals = details::AllTotals();
  CloudStorage::ServerLoad load;
  const bool has_load = CloudStorage::GetServerLoad(load);
  details::AddHealth(json, source.health, is_operator);
  details::AddTotals(json, totals);
  details::AddConnections(json);
  if (has_load) {
    details::AddTasks(json, load);
  }
  if (is_operator) {
    details::AddServices(json, totals);
    details::AddMachine(json, source);
  }
  if (is_operator && has_load) {
    details::AddCatalogue(json, load);
  }
  return json.Serialize() + "\n";
}

std::string ConsoleBuckets(const std::vector<std::string>& only) {
  std::vector<CloudStorage::BucketUsage> usage;
  CloudStorage::GetBucketUsage(usage);
  std::erase_if(usage, [&only](const CloudStorage::BucketUsage& bucket) {
    return !only.empty() && std::find(only.begin(), only.end(), bucket.name) == only.end();
  });
  TansyProto::CRapidJsonProto json;
  json.SetList("/buckets");
  for (std::size_t i = 0; i < usage.size(); ++i) {
    const std::string at = "/buckets[" + std::to_string(i + 1) + "]/";
    json.SetString(at + "name", usage[i].name);
    json.SetInt(at + "objects", details::Number(usage[i].objects));
    json.SetInt(at + "bytes", details::Number(usage[i].bytes));
  }
  return json.Serialize() + "\n";
}

}  // namespace Tansy::Host
