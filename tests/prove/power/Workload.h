// Random requests from several connections to a server whose file calls are noted.
#ifndef TANSY_TESTS_PROVE_POWER_WORKLOAD_H
#define TANSY_TESTS_PROVE_POWER_WORKLOAD_H

#include <cstdint>
#include <string>
#include <vector>

#include "Promises.h"
#include "Trace.h"
#include "support/Http.h"
#include "support/Tansyd.h"

namespace prove {

struct WorkloadOptions {
  std::uint64_t seed = 1;
  int run = 0;  // the number of this run on one data folder; the first one makes the bucket
  int clients = 6;
  int requests = 25;        // of each client, about
  bool has_faults = false;  // any request may be refused, but all are answered
  bool has_pictures = true;
  int big_bodies = 1;  // bodies that arrive in pieces, of all clients together
};

// Sends one request, with its two lines in the trace, and gives its answer's outcome. `number` must be a new one.
std::string Send(system_tests::CTansyd& server, CTraceMarks& marks, Request request, std::string* extra = nullptr);

// What a completion says about the parts of its object.
std::string CompletionXml(const std::string& body);
// The entity tag that S3 gives to a content that was sent whole, without its quotes.
std::string EntityTag(const std::string& content);

// Runs all clients to their end. Gives a line for each answer that no working server gives.
std::vector<std::string> RunWorkload(system_tests::CTansyd& server, CTraceMarks& marks, const WorkloadOptions& options);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_POWER_WORKLOAD_H
