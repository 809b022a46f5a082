#include "Metrics.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <vector>

#include "HousekeepingCounts.h"
#include "PrometheusText.h"
#include "TansyCloudStorage/ServerLoad.h"
#include "TansyNet/HttpServer.h"
#include "TansyNet/MemoryAccount.h"
#include "TansyNet/Operation.h"
#include "db_layer/WriteCounts.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr double kNanosecondsPerSecond = 1e9;

// An operation of which there was at least one request.
struct Counted {
  const TansyNet::COperation* operation;
  TansyNet::COperation::Counts counts;

  CPrometheusText::Labels Labels() const {
    return {{"service", operation->Service()}, {"operation", operation->Name()}};
  }
  std::uint64_t Requests() const {
    std::uint64_t requests = 0;
    for (const std::uint64_t each : counts.statuses) {
      requests += each;
    }
    return requests;
  }
};

std::vector<Counted> CountedOperations() {
  std::vector<Counted> all;
  for (const TansyNet::COperation* operation : TansyNet::Operations()) {
    Counted counted{operation, operation->Read()};
    if (counted.Requests() > 0) {
      all.push_back(counted);
    }
  }
  std::sort(all.begin(), all.end(), [](const Counted& a, const Counted& b) {
    const int services = std::strcmp(a.operation->Service(), b.operation->Service());
    return services != 0 ? services < 0 : std::strcmp(a.operation->Name(), b.operation->Name()) < 0;
  });
  return all;
}

void AddRequests(CPrometheusText& text, const std::vector<Counted>& operations) {
  text.Family(
      "tansy_requests_total", "counter",
      "Requests that ended, by protocol, operation and status; 499: the client left before its answer; other: a "
      "status that is not counted by itself.");
  for (const Counted& counted : operations) {
    for (std::size_t i = 0; i < counted.counts.statuses.size(); ++i) {
      if (const std::uint64_t requests = counted.counts.statuses.at(i); requests > 0) {
        const int status = TansyNet::kCountedStatuses.at(i);
        const std::string name = status == 0 ? "other" : std::to_string(status);
        auto labels = counted.Labels();
        labels.emplace_back("status", name);
        text.Sample(requests, labels);
      }
    }
  }
}

std::string BoundText(double bound) {
  std::array<char, 32> digits{};
  std::snprintf(digits.data(), digits.size(), "%.10g", bound);
  return digits.data();
}

template <typename Counts, typename Bounds>
void AddHistogram(CPrometheusText& text, const Counted& counted, const Counts& counts, const Bounds& bounds,
                  double unit) {
  std::uint64_t sum = 0;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    sum += counts.at(i);
    const std::string bound = i < bounds.size() ? BoundText(static_cast<double>(bounds.at(i)) / unit) : "+Inf";
    auto labels = counted.Labels();
    labels.emplace_back("le", bound);
    text.Sample(sum, labels, "_bucket");
  }
  text.Sample(sum, counted.Labels(), "_count");
}

void AddTimes(CPrometheusText& text, const std::vector<Counted>& operations) {
  text.Family("tansy_request_duration_seconds", "histogram",
              "Time from the end of a request's head to the last byte of its answer.");
  for (const Counted& counted : operations) {
    AddHistogram(text, counted, counted.counts.times, TansyNet::kTimeBounds, kNanosecondsPerSecond);
    text.Sample(static_cast<double>(counted.counts.nanoseconds) / kNanosecondsPerSecond, counted.Labels(), "_sum");
  }
}

void AddSizes(CPrometheusText& text, const std::vector<Counted>& operations) {
  text.Family("tansy_request_body_bytes", "histogram", "Bytes of a request's body and of its answer's body together.");
  for (const Counted& counted : operations) {
    AddHistogram(text, counted, counted.counts.sizes, TansyNet::kSizeBounds, 1);
    text.Sample(counted.counts.bytes_in + counted.counts.bytes_out, counted.Labels(), "_sum");
  }
  text.Family("tansy_received_bytes_total", "counter", "Bytes of the bodies of requests.");
  for (const Counted& counted : operations) {
    text.Sample(counted.counts.bytes_in, counted.Labels());
  }
  text.Family("tansy_sent_bytes_total", "counter", "Bytes of the bodies of answers.");
  for (const Counted& counted : operations) {
    text.Sample(counted.counts.bytes_out, counted.Labels());
  }
}

void AddGauge(CPrometheusText& text, const char* name, const char* help, std::uint64_t value) {
  text.Family(name, "gauge", help);
  text.Sample(value);
}

void AddNetwork(CPrometheusText& text) {
  const TansyNet::ServerLoad load = TansyNet::CHttpServer::Load();
  AddGauge(text, "tansy_connections", "Connections of clients.", load.connections);
  AddGauge(text, "tansy_connections_limit", "Connections that are taken at most.", load.most_connections);
  AddGauge(text, "tansy_connections_busy", "Connections with a request under way.", load.busy_connections);
  AddGauge(text, "tansy_requests_running", "Requests that were delivered and have no answer yet.", load.requests);
  const auto& memory = TansyNet::CMemoryAccount::Process();
  text.Family("tansy_memory_bytes", "gauge", "Memory that requests and answers take, by what it is for.");
  text.Sample(memory.Used(TansyNet::MemoryUse::kArriving), {{"use", "arriving"}});
  text.Sample(memory.Used(TansyNet::MemoryUse::kAnswers), {{"use", "answers"}});
  text.Sample(memory.Used(TansyNet::MemoryUse::kWork), {{"use", "work"}});
  AddGauge(text, "tansy_memory_limit_bytes", "The ceiling of that memory.", memory.Limit());
}

void AddModule(CPrometheusText& text) {
  CloudStorage::ServerLoad load;
  if (!CloudStorage::GetServerLoad(load)) {
    return;
  }
  AddGauge(text, "tansy_tasks", "Requests that wait for a worker or run on one.", load.tasks);
  AddGauge(text, "tansy_tasks_limit", "At this number requests are refused.", load.most_tasks);
  AddGauge(text, "tansy_tasks_waiting", "Requests that no worker has begun yet.", load.waiting_tasks);
  text.Family("tansy_workers", "gauge",
              "Workers with a request, by what they do: compute, or wait for a disk or a lock.");
  text.Sample(load.computing_threads, {{"state", "computing"}});
  text.Sample(load.blocked_threads, {{"state", "waiting"}});
  text.Family("tansy_sweeps_total", "counter", "Looks for uploads in parts that everybody has forgotten.");
  text.Sample(load.sweeps);
  text.Family("tansy_swept_uploads_total", "counter", "Uploads in parts that were removed because of that.");
  text.Sample(load.swept_uploads);
  AddGauge(text, "tansy_buckets", "Buckets in the catalogue.", load.buckets);
  AddGauge(text, "tansy_objects", "Objects in the catalogue.", load.objects);
  AddGauge(text, "tansy_open_uploads", "Uploads in parts of the object protocol that have not ended.",
           load.open_uploads);
}

void AddCatalogueWrites(CPrometheusText& text) {
  const db_layer::WriteCounts counts = db_layer::CountedWrites();
  text.Family("tansy_commits_total", "counter",
              "Commits of the catalogue; each is one wait for the disk or the server.");
  text.Sample(counts.groups);
  text.Family("tansy_catalogue_writes_total", "counter",
              "Writes to the catalogue; those that came together share a commit.");
  text.Sample(counts.writes);
  text.Family("tansy_commit_seconds_total", "counter", "Time that these commits took.");
  text.Sample(static_cast<double>(counts.nanoseconds) / kNanosecondsPerSecond);
}

void AddHousekeeping(CPrometheusText& text) {
  const HousekeepingCounts& counts = HousekeepingCounts::OfProcess();
  text.Family("tansy_housekeeping_rounds_total", "counter", "Rounds of housekeeping that went to their end.");
  text.Sample(counts.rounds);
  text.Family("tansy_freed_total", "counter",
              "Stored bodies that were freed: released by their row, or orphaned, which never got one.");
  text.Sample(counts.freed_released.pieces, {{"kind", "released"}});
  text.Sample(counts.freed_orphaned.pieces, {{"kind", "orphaned"}});
  text.Family("tansy_freed_bytes_total", "counter", "Their bytes.");
  text.Sample(counts.freed_released.bytes, {{"kind", "released"}});
  text.Sample(counts.freed_orphaned.bytes, {{"kind", "orphaned"}});
  text.Family("tansy_unreferenced", "gauge",
              "Stored bodies that no row names, by why: their object was removed or replaced, or they are new. Of the "
              "first two, 100000 stands for as many or more.");
  text.Sample(counts.waiting_removed, {{"kind", "removed"}});
  text.Sample(counts.waiting_replaced, {{"kind", "replaced"}});
  text.Sample(counts.waiting_new, {{"kind", "new"}});
}

void AddHost(CPrometheusText& text, const MetricsSource& source) {
  text.Family("tansy_up", "gauge", "1 for each part of the server that is well, 0 for one that is in trouble.");
  for (const HealthPart& part : source.health.parts) {
    text.Sample(std::uint64_t{part.trouble.empty() ? 1U : 0U}, {{"part", part.name}});
  }
  if (source.certificate_ends.has_value()) {
    text.Family("tansy_certificate_end_time_seconds", "gauge", "When the certificate ends, in seconds since 1970.");
    text.Sample(static_cast<double>(*source.certificate_ends));
  }
  text.Family("tansy_start_time_seconds", "gauge", "When the server started, in seconds since 1970.");
  text.Sample(static_cast<std::uint64_t>(source.start_time));
  text.Family("tansy_build_info", "gauge", "Which program this is.");
  text.Sample(std::uint64_t{1}, {{"version", TANSY_VERSION}});
}

}  // namespace
}  // namespace details

std::string MetricsText(const MetricsSource& source) {
  CPrometheusText text;
  const std::vector<details::Counted> operations = details::CountedOperations();
  details::AddRequests(text, operations);
  details::AddTimes(text, operations);
  details::AddSizes(text, operations);
  details::AddNetwork(text);
  details::AddModule(text);
  details::AddCatalogueWrites(text);
  details::AddHousekeeping(text);
  details::AddHost(text, source);
  return text.Take();
}

}  // namespace Tansy::Host
