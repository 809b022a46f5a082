// Clients of every kind, the impolite ones too, at work on one server.
#ifndef TANSY_TESTS_PROVE_SOAK_LOAD_H
#define TANSY_TESTS_PROVE_SOAK_LOAD_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "support/Http.h"
#include "support/Tansyd.h"

namespace prove {

class CLoad {
 public:
  // Works in the bucket "soak", which it makes. `folder` is for the files of the command-line client.
  CLoad(system_tests::CTansyd& tansyd, std::string folder, std::uint64_t seed);

  // Lets all clients work for this time; afterwards none has a connection any more. `with_big_ones`: bodies of more
  // than 10 MiB and the command-line client too.
  void Work(std::chrono::milliseconds time, bool with_big_ones);

  std::size_t GetRequests() const { return requests_; }
  // Answers that no healthy server gives, one line each.
  std::vector<std::string> GetWrong() const;

 private:
  using Dice = std::mt19937_64;

  void WorkAlone(std::size_t client, std::chrono::steady_clock::time_point end, bool with_big_ones);
  void KeepOneConnection(Dice& dice, std::chrono::steady_clock::time_point end);
  void DoSomething(Dice& dice, bool with_big_ones);
  void PutInParts(Dice& dice);
  void PutPicture(Dice& dice);
  void BreakOff(Dice& dice, std::size_t size);
  void DripBody(Dice& dice);
  void DripRead(Dice& dice);
  void StayHalfOpen(Dice& dice);
  void RunCommandLine(Dice& dice);
  void DoSomethingByS3(Dice& dice, bool with_big_ones);
  void PutInPartsByS3(Dice& dice, bool with_big_ones);
  void StayAwayByS3(Dice& dice);
  // One request on a connection of its own.
  system_tests::Reply Ask(Dice& dice, const system_tests::Request& request);
  system_tests::Reply AskS3(Dice& dice, const system_tests::Request& request);
  std::unique_ptr<system_tests::CConnection> Open(Dice& dice);
  std::unique_ptr<system_tests::CConnection> OpenS3(Dice& dice, std::uint16_t& port);
  void Expect(const system_tests::Request& request, const system_tests::Reply& reply);
  static std::string Key(Dice& dice);
  static std::string Body(Dice& dice, std::size_t size);

  system_tests::CTansyd& tansyd_;
  const std::string folder_;
  const std::uint64_t seed_;
  std::uint64_t cycle_ = 0;
  std::atomic<std::size_t> requests_{0};
  mutable std::mutex mutex_;
  std::vector<std::string> wrong_;
};

}  // namespace prove

#endif  // TANSY_TESTS_PROVE_SOAK_LOAD_H
