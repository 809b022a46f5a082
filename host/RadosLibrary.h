#ifndef TANSY_HOST_RADOS_LIBRARY_H
#define TANSY_HOST_RADOS_LIBRARY_H

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace Tansy::Host {

// What is used of librados's C interface. The library is loaded when a pool is opened, so that tansyd runs without it
// where nobody asks for a pool; its headers are not needed. Results are 0 or a negative errno value. Handles are plain
// pointers there, as they are here.
struct RadosLibrary {
  using Callback = void (*)(void* completion, void* argument);

  int (*create2)(void** cluster, const char* cluster_name, const char* user, std::uint64_t flags) = nullptr;
  int (*conf_read_file)(void* cluster, const char* path) = nullptr;
  int (*conf_get)(void* cluster, const char* name, char* value, std::size_t size) = nullptr;
  int (*conf_set)(void* cluster, const char* name, const char* value) = nullptr;
  int (*connect)(void* cluster) = nullptr;
  void (*shutdown)(void* cluster) = nullptr;
  int (*ioctx_create)(void* cluster, const char* pool, void** context) = nullptr;
  void (*ioctx_set_namespace)(void* context, const char* name) = nullptr;
  void (*ioctx_destroy)(void* context) = nullptr;

  int (*aio_create_completion2)(void* argument, Callback callback, void** completion) = nullptr;
  int (*aio_get_return_value)(void* completion) = nullptr;
  void (*aio_release)(void* completion) = nullptr;

  void* (*create_write_op)() = nullptr;
  void (*release_write_op)(void* operation) = nullptr;
  void (*write_op_assert_exists)(void* operation) = nullptr;
  void (*write_op_cmpxattr)(void* operation, const char* name, std::uint8_t comparison, const char* value,
                            std::size_t size) = nullptr;
  void (*write_op_setxattr)(void* operation, const char* name, const char* value, std::size_t size) = nullptr;
  void (*write_op_create)(void* operation, int exclusive, const char* category) = nullptr;
  void (*write_op_write)(void* operation, const char* data, std::size_t size, std::uint64_t offset) = nullptr;
  void (*write_op_write_full)(void* operation, const char* data, std::size_t size) = nullptr;
  void (*write_op_remove)(void* operation) = nullptr;
  int (*aio_write_op_operate)(void* operation, void* context, void* completion, const char* object, std::time_t* time,
                              int flags) = nullptr;

  void* (*create_read_op)() = nullptr;
  void (*release_read_op)(void* operation) = nullptr;
  void (*read_op_getxattrs)(void* operation, void** attributes, int* result) = nullptr;
  int (*getxattrs_next)(void* attributes, const char** name, const char** value, std::size_t* size) = nullptr;
  void (*getxattrs_end)(void* attributes) = nullptr;
  void (*read_op_stat)(void* operation, std::uint64_t* size, std::time_t* time, int* result) = nullptr;
  void (*read_op_read)(void* operation, std::uint64_t offset, std::size_t size, char* data, std::size_t* done,
                       int* result) = nullptr;
  int (*aio_read_op_operate)(void* operation, void* context, void* completion, const char* object, int flags) = nullptr;

  int (*nobjects_list_open)(void* context, void** list) = nullptr;
  int (*nobjects_list_next)(void* list, const char** object, const char** locator, const char** name_space) = nullptr;
  void (*nobjects_list_close)(void* list) = nullptr;

  // `duration` points to a timeval.
  int (*lock_exclusive)(void* context, const char* object, const char* lock, const char* cookie,
                        const char* description, void* duration, std::uint8_t flags) = nullptr;
  int (*lock_shared)(void* context, const char* object, const char* lock, const char* cookie, const char* tag,
                     const char* description, void* duration, std::uint8_t flags) = nullptr;
  int (*unlock)(void* context, const char* object, const char* lock, const char* cookie) = nullptr;
  int (*break_lock)(void* context, const char* object, const char* lock, const char* client,
                    const char* cookie) = nullptr;
  // Returns the number of holders.
  std::ptrdiff_t (*list_lockers)(void* context, const char* object, const char* lock, int* exclusive, char* tag,
                                 std::size_t* tag_size, char* clients, std::size_t* clients_size, char* cookies,
                                 std::size_t* cookies_size, char* addresses, std::size_t* addresses_size) = nullptr;
};

// Gives the library, loaded at the first call. Throws CStartFailure with kExitFailed when it is not there or too old.
// Threads: any.
const RadosLibrary& LoadRadosLibrary();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RADOS_LIBRARY_H
