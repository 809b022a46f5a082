#ifndef TANSY_SRC_STORAGE_SERVER_HOST_BUFFER_H
#define TANSY_SRC_STORAGE_SERVER_HOST_BUFFER_H

#include <cstdint>
#include <cstdlib>
#include <memory>

namespace Tansy::CloudStorage::details {

struct FreeDeleter {
  void operator()(char* data) const { std::free(data); }
};

// Owns what a read callback of the host handed over, allocated with malloc.
struct HostBuffer {
  // Takes the buffer of a read with this result. Only a successful read hands over a buffer; what a failed read leaves
  // behind stays the host's.
  void Take(int result, char* delivered, std::uint32_t bytes) {
    if (result == 0) {
      data.reset(delivered);
      size = bytes;
    }
  }

  std::unique_ptr<char, FreeDeleter> data;
  std::uint32_t size = 0;  // bytes that the host delivered
};

}  // namespace Tansy::CloudStorage::details

#endif  // TANSY_SRC_STORAGE_SERVER_HOST_BUFFER_H
