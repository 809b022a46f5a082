// A host in this process: the three servers of the module on free ports, bytes in memory, the catalogue in a fresh
// folder.
#ifndef TANSY_TESTS_OUT_OF_MEMORY_MEMORY_HOST_H
#define TANSY_TESTS_OUT_OF_MEMORY_MEMORY_HOST_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "support/Http.h"

namespace Tansy::Tests {

// Every form that is sent has this boundary.
inline const std::string kFormBoundary = "----boundary4711";

// Started once and kept until the process ends, because the module can be initialised once only. Its callbacks are
// never harmed by a failing allocation: they stand for a storage that has memory of its own.
class CMemoryHost {
 public:
  static CMemoryHost& Instance();

  std::uint16_t ObjectPort() const { return object_port_; }
  std::uint16_t PicturePort() const { return picture_port_; }
  std::uint16_t S3Port() const { return s3_port_; }

  // Sends one signed request on a connection of its own, which the server closes after its answer. The status is 0 when
  // it closed without an answer, and -1 when it did neither within ten seconds.
  system_tests::Reply Call(std::uint16_t port, const system_tests::Request& request) const;
  // The same on a connection that has served a request already; see Prepare.
  system_tests::Reply Finish(system_tests::CConnection& connection, std::uint16_t port,
                             const system_tests::Request& request) const;
  // A connection that the server has accepted and served once. Null when it does not.
  std::unique_ptr<system_tests::CConnection> Prepare(std::uint16_t port) const;

  // Counts the rows of the catalogue that fulfil a condition.
  int CountRows(const std::string& table, const std::string& condition) const;

 private:
  CMemoryHost();
  // A body with the header x-amz-decoded-content-length is one in unsigned chunks.
  system_tests::Request Signed(const system_tests::Request& request, std::uint16_t port) const;

  std::uint16_t object_port_ = 0;
  std::uint16_t picture_port_ = 0;
  std::uint16_t s3_port_ = 0;
  std::string database_;
};

}  // namespace Tansy::Tests

#endif  // TANSY_TESTS_OUT_OF_MEMORY_MEMORY_HOST_H
