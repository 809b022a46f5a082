// What every system test needs: a folder, a tansyd on it, and signed requests to it.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_TEST_H
#define TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "fakes/RandomBytes.h"
#include "fakes/TempFolder.h"
#include "support/Http.h"
#include "support/Tansyd.h"

namespace system_tests {

class TansydTest : public testing::Test {
 protected:
  TansydTest() : server_(temp_.GetPath()) {}

  // A signed request to the object port.
  Reply Send(const std::string& method, const std::string& target, const std::string& body = "",
             const HeaderList& headers = {}, const ConnectOptions& options = {});
  // The same without a signature.
  Reply SendPlain(const std::string& method, const std::string& target, const std::string& body = "",
                  const HeaderList& headers = {});
  void MakeBucket(const std::string& name);
  // Shows on failure what the server has to say about it.
  void Put(const std::string& target, const std::string& body);
  std::string Get(const std::string& target);

  Tansy::Tests::CTempFolder temp_;
  CTansyd server_;
};

// Says by how much the memory of a program grows when it uses so many bytes. AddressSanitizer keeps freed memory for a
// while before it is used again, and ThreadSanitizer notes four bytes for each byte.
constexpr std::uint64_t MemoryFor(std::uint64_t bytes) {
#if defined(__SANITIZE_ADDRESS__)
  return bytes + (std::uint64_t{256} << 20);
#elif defined(__SANITIZE_THREAD__)
  return bytes * 5;
#else
  return bytes;
#endif
}

// The body of an error answer.
std::string ErrorXml(const std::string& word);

// Status and error word, for one comparison: "403 AccessDenied"; "200" for success.
std::string Outcome(const Reply& reply);

using Tansy::Tests::RandomBytes;

// Regular files below a folder, at any depth; 0 for one that is missing.
std::size_t CountFiles(const std::string& folder);

// The value between <name> and </name>, the first one.
std::string XmlValue(const std::string& xml, const std::string& name);

// Runs a statement on a stopped or running server's catalogue; rows as "a|b".
std::vector<std::string> Query(const std::string& database_path, const std::string& sql);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_TANSYD_TEST_H
