// A whole run: rounds of clients at work, each with the server's end and its next start, and what came of them.
#ifndef TANSY_TESTS_PROVE_MODEL_RUN_H
#define TANSY_TESTS_PROVE_MODEL_RUN_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Backend.h"
#include "Plan.h"
#include "Server.h"
#include "TansydServer.h"

namespace prove {

struct RunOptions {
  std::uint64_t seed = 1;
  std::size_t rounds = 1;
  std::chrono::minutes time{0};               // more than none: rounds until it is over, however many
  std::chrono::milliseconds patience{60000};  // the longest that a request may take
  Features features;
  std::string history_file;     // where the history of a failing round is kept; empty: nowhere
  CBackend* backend = nullptr;  // whose database may crash; null: none
  bool looks_at_space = true;   // at the end; where many uploads were cut off, a pool takes long to give it back
};

struct RunResult {
  std::vector<std::string> wrong;  // empty: all is as it must be
  std::size_t rounds = 0;
  std::size_t kills = 0;
  std::size_t stops = 0;
  std::size_t crashes = 0;  // of the database
  std::size_t busy = 0;     // answers of nodes that they cannot know
  std::size_t operations = 0;
  std::size_t pictures = 0;
  std::uint64_t live_bytes = 0;   // of the objects that are there at the end
  std::int64_t latest_clock = 0;  // seconds by which the server's time of day was ahead, at most
};

// `servers`: one, or the nodes that serve one catalogue.
RunResult RunModel(const std::vector<IServer*>& servers, const RunOptions& options);

// After a run: lets the sweep and housekeeping do what is left to them, and compares catalogue and store.
// `live_bytes` are those of the objects that must be there. Returns what is wrong.
std::vector<std::string> CheckSpace(const std::vector<CTansydServer*>& servers, const CBackend& backend,
                                    const RunResult& run);

// The run as a line for a person, and what is wrong, one line each.
std::string Describe(const RunOptions& options, const RunResult& result);

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_MODEL_RUN_H
