#include "RadosLibrary.h"

#include <string>

#include "HostSystem/SharedLibrary.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kLibrary = "librados.so.2";

template <typename Function>
void Find(void* library, const char* name, Function& function) {
  const std::string whole_name = std::string("rados_") + name;
  function = reinterpret_cast<Function>(HostSystem::FindFunction(library, whole_name.c_str()));
  if (function == nullptr) {
    throw CStartFailure(kExitFailed, std::string(kLibrary) + " is too old: it has no " + whole_name);
  }
}

RadosLibrary Load() {
  std::string error;
  void* library = HostSystem::LoadSharedLibrary(kLibrary, error);
  if (library == nullptr) {
    throw CStartFailure(kExitFailed, "storage in a Ceph pool needs " + std::string(kLibrary) +
                                         " (Debian's package librados2), which cannot be loaded: " + error);
  }
  RadosLibrary rados;
  Find(library, "create2", rados.create2);
  Find(library, "conf_read_file", rados.conf_read_file);
  Find(library, "conf_get", rados.conf_get);
  Find(library, "conf_set", rados.conf_set);
  Find(library, "connect", rados.connect);
  Find(library, "shutdown", rados.shutdown);
  Find(library, "ioctx_create", rados.ioctx_create);
  Find(library, "ioctx_set_namespace", rados.ioctx_set_namespace);
  Find(library, "ioctx_destroy", rados.ioctx_destroy);
  Find(library, "aio_create_completion2", rados.aio_create_completion2);
  Find(library, "aio_get_return_value", rados.aio_get_return_value);
  Find(library, "aio_release", rados.aio_release);
  Find(library, "create_write_op", rados.create_write_op);
  Find(library, "release_write_op", rados.release_write_op);
  Find(library, "write_op_assert_exists", rados.write_op_assert_exists);
  Find(library, "write_op_cmpxattr", rados.write_op_cmpxattr);
  Find(library, "write_op_setxattr", rados.write_op_setxattr);
  Find(library, "write_op_create", rados.write_op_create);
  Find(library, "write_op_write", rados.write_op_write);
  Find(library, "write_op_write_full", rados.write_op_write_full);
  Find(library, "write_op_remove", rados.write_op_remove);
  Find(library, "aio_write_op_operate", rados.aio_write_op_operate);
  Find(library, "create_read_op", rados.create_read_op);
  Find(library, "release_read_op", rados.release_read_op);
  Find(library, "read_op_getxattrs", rados.read_op_getxattrs);
  Find(library, "getxattrs_next", rados.getxattrs_next);
  Find(library, "getxattrs_end", rados.getxattrs_end);
  Find(library, "read_op_stat", rados.read_op_stat);
  Find(library, "read_op_read", rados.read_op_read);
  Find(library, "aio_read_op_operate", rados.aio_read_op_operate);
  Find(library, "nobjects_list_open", rados.nobjects_list_open);
  Find(library, "nobjects_list_next", rados.nobjects_list_next);
  Find(library, "nobjects_list_close", rados.nobjects_list_close);
  Find(library, "lock_exclusive", rados.lock_exclusive);
  Find(library, "lock_shared", rados.lock_shared);
  Find(library, "unlock", rados.unlock);
  Find(library, "break_lock", rados.break_lock);
  Find(library, "list_lockers", rados.list_lockers);
  return rados;
}

}  // namespace
}  // namespace details

const RadosLibrary& LoadRadosLibrary() {
  static const RadosLibrary rados = details::Load();
  return rados;
}

}  // namespace Tansy::Host
