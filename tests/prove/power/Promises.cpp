#include "Promises.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "fakes/RandomBytes.h"

namespace prove {
namespace {

const std::vector<std::string> kKinds = {"bucket",    "put",      "remove",   "delete",  "begin",
                                         "part",      "complete", "picture",  "s3-put",  "s3-put-new",
                                         "s3-remove", "s3-copy",  "s3-begin", "s3-part", "s3-complete"};

struct Bodies {
  std::mutex mutex;
  std::map<std::string, std::string> by_spec;
};
Bodies& TheBodies() {
  static Bodies bodies;
  return bodies;
}

// A request that changes what is found under one name.
struct Effect {
  std::size_t begin = 0;
  std::size_t end = 0;
  bool is_done = false;
  std::string body;  // "-": nothing is there any more
  bool frees_bytes = false;
};

// Requests on one name may overlap. Each may have been the last one, unless another one that was answered began only
// when it was over.
Possible Outcomes(const std::vector<Effect>& effects) {
  Possible possible;
  const bool any_done =
      std::any_of(effects.begin(), effects.end(), [](const Effect& effect) { return effect.is_done; });
  possible.may_be_missing = !any_done;
  for (const Effect& effect : effects) {
    const bool is_past = std::any_of(effects.begin(), effects.end(), [&effect](const Effect& other) {
      return other.is_done && other.begin > effect.end;
    });
    if (is_past) {
      continue;
    }
    if (effect.body == "-") {
      possible.may_be_missing = true;
      possible.may_be_half_removed = possible.may_be_half_removed || (effect.frees_bytes && !effect.is_done);
    } else {
      possible.bodies.insert(effect.body);
    }
  }
  return possible;
}

using Effects = std::map<std::string, std::vector<Effect>>;

std::map<std::string, Possible> Outcomes(const Effects& effects) {
  std::map<std::string, Possible> outcomes;
  for (const auto& [name, list] : effects) {
    outcomes[name] = Outcomes(list);
  }
  return outcomes;
}

std::map<std::string, OpenTask>& OpenUploads(Promises& promises, const Request& request) {
  return IsByS3(request.kind) ? promises.s3_uploads : promises.tasks;
}

}  // namespace

std::string BodySpec(std::uint64_t seed, std::size_t size) {
  return std::to_string(seed) + ":" + std::to_string(size);
}

const std::string& BodyOf(const std::string& spec) {
  Bodies& bodies = TheBodies();
  const std::lock_guard lock(bodies.mutex);
  const auto [found, is_new] = bodies.by_spec.try_emplace(spec);
  if (is_new) {
    std::istringstream pieces(spec);
    for (std::string piece; std::getline(pieces, piece, ',');) {
      const std::size_t colon = piece.find(':');
      if (colon == std::string::npos) {
        throw std::runtime_error("not the text of a body: " + spec);
      }
      found->second +=
          Tansy::Tests::RandomBytes(std::stoull(piece.substr(colon + 1)), std::stoull(piece.substr(0, colon)));
    }
  }
  return found->second;
}

void ForgetBodies() {
  Bodies& bodies = TheBodies();
  const std::lock_guard lock(bodies.mutex);
  bodies.by_spec.clear();
}

std::string Request::BeginLine() const {
  return "begin " + std::to_string(number) + " " + kKinds[static_cast<std::size_t>(kind)] + " " + key + " " + body +
         " " + task + " " + std::to_string(part);
}

std::string Request::EndLine(std::size_t number, const std::string& outcome, const std::string& extra) {
  return "end " + std::to_string(number) + " " + (extra.empty() ? "-" : extra) + " " + outcome;
}

std::vector<Request> ReadRequests(const CTrace& trace) {
  std::vector<Request> requests;
  std::map<std::size_t, std::size_t> by_number;
  const std::vector<Record>& records = trace.GetRecords();
  for (std::size_t position = 0; position < records.size(); ++position) {
    if (records[position].head.kind != ERecord::kMark) {
      continue;
    }
    std::istringstream line{std::string(records[position].name)};
    std::string what;
    std::size_t number = 0;
    line >> what >> number;
    if (what == "begin") {
      Request request;
      std::string kind;
      request.number = number;
      line >> kind >> request.key >> request.body >> request.task >> request.part;
      const auto found = std::find(kKinds.begin(), kKinds.end(), kind);
      if (found == kKinds.end() || !line) {
        throw std::runtime_error("not a line of a request: " + line.str());
      }
      request.kind = static_cast<ERequest>(found - kKinds.begin());
      request.begin = position;
      by_number[number] = requests.size();
      requests.push_back(std::move(request));
    } else if (what == "end" && by_number.count(number) > 0) {
      Request& request = requests[by_number[number]];
      line >> request.extra >> std::ws;
      std::getline(line, request.outcome);
      request.end = position;
    }
  }
  return requests;
}

Promises PromisesAt(const std::vector<Request>& requests, std::size_t position) {
  Promises promises;
  Effects buckets;
  Effects objects;
  std::map<std::string, Effects> parts;
  std::map<std::string, std::vector<const Request*>> completions;
  for (const Request& request : requests) {
    if (request.begin >= position) {
      continue;
    }
    const bool is_answered = request.end < position;
    const bool is_done = is_answered && request.IsDone();
    // An answer that says no has changed nothing.
    if (is_answered && request.outcome == "404 NoSuchKey") {
      continue;
    }
    const Effect effect = {request.begin, is_answered ? request.end : Request::kNever, is_done, request.body,
                           request.kind == ERequest::kRemove};
    switch (request.kind) {
      case ERequest::kBucket:
        buckets[request.key].push_back(effect);
        break;
      case ERequest::kPut:
      case ERequest::kRemove:
      case ERequest::kDelete:
      case ERequest::kPutByS3:
      case ERequest::kPutNewByS3:
      case ERequest::kRemoveByS3:
      case ERequest::kCopyByS3:
        objects[request.key].push_back(effect);
        break;
      case ERequest::kBegin:
      case ERequest::kBeginByS3:
        if (is_done) {
          OpenUploads(promises, request)[request.extra].key = request.key;
        }
        break;
      case ERequest::kPart:
      case ERequest::kPartByS3:
        parts[request.task][std::to_string(request.part)].push_back(effect);
        break;
      case ERequest::kComplete:
      case ERequest::kCompleteByS3:
        objects[request.key].push_back(effect);
        completions[request.task].push_back(&request);
        break;
      case ERequest::kPicture:
        if (is_done) {
          promises.pictures[request.extra] = request.body;
        }
        break;
    }
  }
  promises.buckets = Outcomes(buckets);
  promises.objects = Outcomes(objects);
  for (const auto& [task, list] : completions) {
    for (const Request* completion : list) {
      std::map<std::string, OpenTask>& open = OpenUploads(promises, *completion);
      if (completion->end < position && completion->IsDone()) {
        open.erase(task);
      } else if (open.count(task) > 0) {
        open[task].may_be_complete = true;
      }
    }
  }
  for (auto* uploads : {&promises.tasks, &promises.s3_uploads}) {
    for (auto& [task, open] : *uploads) {
      for (const auto& [number, possible] : Outcomes(parts[task])) {
        open.parts[std::stoi(number)] = possible;
      }
    }
  }
  return promises;
}

}  // namespace prove
