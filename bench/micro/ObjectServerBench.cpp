// Requests, look-ups and inserts of the object server, without sockets.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/ObjectStorageManager.h"
#include "TansyProto/XmlProto.h"
#include "World.h"
#include "fakes/FakeHttpServer.h"

namespace {

using namespace Tansy::CloudStorage;
using Tansy::Tests::CFakeHttpServer;

void SplitPath(benchmark::State& state) {
  const std::string path = "/bench/object-0004711.jpg";
  for (auto _ : state) {
    std::string bucket;
    std::string key;
    benchmark::DoNotOptimize(CObjectServer::ParseUrl(bucket, key, path));
  }
}
BENCHMARK(SplitPath);

void LookUp(benchmark::State& state) {
  TansyBench::StartWorld();
  CObjectStorageManager& catalogue = CObjectStorageManager::Instance();
  int number = 0;
  for (auto _ : state) {
    ObjectInfo object;
    number = (number + 7919) % TansyBench::kObjects;
    if (!catalogue.GetObjectByName(object, TansyBench::ObjectName(number), TansyBench::kBucket)) {
      state.SkipWithError("an object is missing");
    }
  }
}
BENCHMARK(LookUp)->ThreadRange(1, 4)->UseRealTime();

// The row in the database, without waiting for a disk, and the record in memory.
void Insert(benchmark::State& state) {
  TansyBench::StartWorld();
  CObjectStorageManager& catalogue = CObjectStorageManager::Instance();
  static int number = 0;  // goes on where the run before has ended
  for (auto _ : state) {
    ObjectInfo object;
    object.name = "new-" + std::to_string(++number);
    object.bucket_name = TansyBench::kBucket;
    object.size = 4096;
    object.update_time = "2026-11-21 08:00:00";
    object.url = "fs01ab-cd-" + object.name + ".d";
    if (!catalogue.AddObject(object)) {
      state.SkipWithError("an object cannot be added");
    }
  }
}
BENCHMARK(Insert)->UseRealTime();

// A signed GET of 4 KiB from its arrival to its answer: routing, signature, look-up, reading, answering. The answer
// goes to a fake of the HTTP library.
void HandleSignedGet(benchmark::State& state) {
  TansyBench::StartWorld();
  CFakeHttpServer& http = CFakeHttpServer::Instance();
  const TansyNet::HttpServerRecv message = TansyBench::SignedGet(4711);
  std::int32_t handle = 0;
  for (auto _ : state) {
    handle = http.NewHandle();
    CObjectServer::Instance().HandleObjectMsg(handle, message);
    if (state.iterations() % 1000 == 0 && http.AnswerOf(handle).body_size != 4096) {
      state.SkipWithError("the answer is wrong");
    }
    http.Reset();
  }
}
BENCHMARK(HandleSignedGet);

// A signed request that no row of the routing table fits: all rows are compared, and an error is answered.
void RouteUnknown(benchmark::State& state) {
  TansyBench::StartWorld();
  CFakeHttpServer& http = CFakeHttpServer::Instance();
  TansyNet::HttpServerRecv message = TansyBench::SignedGet(4711);
  message.method = "PATCH";
  for (auto _ : state) {
    CObjectServer::Instance().HandleObjectMsg(http.NewHandle(), message);
    http.Reset();
  }
}
BENCHMARK(RouteUnknown);

void ErrorAnswer(benchmark::State& state) {
  for (auto _ : state) {
    TansyNet::HttpResponse response;
    std::string body;
    BuildErrorRsp(response, body, kNoSuchKey);
    benchmark::DoNotOptimize(body);
  }
}
BENCHMARK(ErrorAnswer);

void XmlAnswer(benchmark::State& state) {
  for (auto _ : state) {
    TansyProto::CXmlProto xml;
    xml.SetString("/InitiateMultipartUploadResult/Bucket", "bench");
    xml.SetString("/InitiateMultipartUploadResult/Key", "object-0004711.jpg");
    xml.SetString("/InitiateMultipartUploadResult/UploadId", "0b6f1c9e-5a3d-4c57-9d1e-2f8a7b604c11");
    std::string body;
    xml.Serialize(body);
    benchmark::DoNotOptimize(body);
  }
}
BENCHMARK(XmlAnswer);

}  // namespace
