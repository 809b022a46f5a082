// Signatures, queries and digests.
#include <benchmark/benchmark.h>

#include <map>
#include <string>

#include "StorageClient/Md5.h"
#include "StorageServer/ObjectServer/ObjectServer.h"
#include "StorageServer/ServerComm.h"
#include "World.h"

namespace {

using namespace Tansy::CloudStorage;

constexpr char kSignText[] = "GET\n\n\nSat, 21 Nov 2026 08:00:00 GMT\n\n/bench/object-0004711.jpg";

void Sign(benchmark::State& state) {
  const std::string text = kSignText;
  const std::string key = TansyBench::kSecretKey;
  for (auto _ : state) {
    benchmark::DoNotOptimize(SignHmacSha1(text, key));
  }
}
BENCHMARK(Sign);

void CheckSignature(benchmark::State& state) {
  const std::string key = TansyBench::kSecretKey;
  const std::string signature = SignHmacSha1(kSignText, key);
  for (auto _ : state) {
    if (!CheckHMACResult(kSignText, key, signature)) {
      state.SkipWithError("the signature is wrong");
    }
  }
}
BENCHMARK(CheckSignature);

// The whole check of a request's Authorization header.
void CheckSignedHeader(benchmark::State& state) {
  TansyBench::StartWorld();
  const TansyNet::HttpServerRecv message = TansyBench::SignedGet(4711);
  for (auto _ : state) {
    if (CObjectServer::Instance().CheckAuth(message) != 0) {
      state.SkipWithError("the signature is wrong");
    }
  }
}
BENCHMARK(CheckSignedHeader);

void SplitQuery(benchmark::State& state) {
  const std::string query =
      "upload_id=0b6f1c9e-5a3d-4c57-9d1e-2f8a7b604c11&part_number=2&token=cXVvcnZhbmUgYmVuY2g6YWJjZGVmZ2hpamts";
  for (auto _ : state) {
    std::map<std::string, std::string> values;
    ParseHttpUrlQuery(values, query);
    benchmark::DoNotOptimize(values);
  }
}
BENCHMARK(SplitQuery);

void DecodeQuery(benchmark::State& state) {
  const std::string text = "quorvane+bench%3AXTL562G%2BLC9hav0sOWWkXHNswQc%3D";
  for (auto _ : state) {
    benchmark::DoNotOptimize(DecodeHttpUrlQuery(text));
  }
}
BENCHMARK(DecodeQuery);

void Md5(benchmark::State& state) {
  const std::string bytes(static_cast<std::size_t>(state.range(0)), 'x');
  for (auto _ : state) {
    benchmark::DoNotOptimize(CMd5::Compute(bytes.data(), bytes.size()));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Md5)->Arg(4096)->Arg(1 << 20);

}  // namespace
