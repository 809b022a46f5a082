// What the benchmarks of the object server share: a database in a temporary file, a storage in memory, a listener that
// is none.
#ifndef TANSY_BENCH_MICRO_WORLD_H
#define TANSY_BENCH_MICRO_WORLD_H

#include <string>

#include "TansyNet/HttpServer.h"

namespace TansyBench {

inline constexpr char kBucket[] = "bench";
inline constexpr char kSecretKey[] = "bench-secret";
inline constexpr int kObjects = 10000;

// Starts the object server once per process, with kObjects objects of 4 KiB in the bucket. Durability is `fast`, so
// that no disk is measured.
void StartWorld();

std::string ObjectName(int number);

// A GET of an object, with a signed header.
TansyNet::HttpServerRecv SignedGet(int number);

}  // namespace TansyBench

#endif  // TANSY_BENCH_MICRO_WORLD_H
