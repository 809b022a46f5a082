#include "Locks.h"

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "HostSystem/Files.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

[[noreturn]] void Fail(const std::string& what, int error) {
  throw CStartFailure(kExitFailed, what + (error == EBUSY ? std::string(" is in use by another tansyd")
                                                          : " cannot be written: " + HostSystem::ErrorText(error)));
}

void Expect(const std::string& what, int error) {
  if (error != 0) {
    Fail(what, error);
  }
}

bool IsCurrentFolder(const std::string& folder) {
  std::error_code error;
  return std::filesystem::equivalent(std::filesystem::path(std::u8string(folder.begin(), folder.end())), ".", error);
}

std::string StorageLock(const std::string& folder) {
  return folder + "/tansyd.lock";
}

}  // namespace
}  // namespace details

void LockDatabase(const std::string& file, HostSystem::CLockFile& lock) {
  details::Expect("database " + file, lock.Take(file + ".lock"));
}

void ExpectStorageFree(const std::string& folder) {
  if (!details::IsCurrentFolder(folder) && IsStorageInUse(folder)) {
    details::Fail("storage folder " + folder, EBUSY);
  }
}

void LockStorage(const std::string& folder, HostSystem::CLockFile& lock) {
  if (!details::IsCurrentFolder(folder)) {
    details::Expect("storage folder " + folder, lock.Take(details::StorageLock(folder)));
  }
}

void ShareStorage(const std::string& folder, HostSystem::CLockFile& lock) {
  details::Expect("storage folder " + folder, lock.Share(details::StorageLock(folder)));
}

bool IsStorageInUse(const std::string& folder) {
  return HostSystem::CLockFile::IsTakenByAnybody(details::StorageLock(folder));
}

}  // namespace Tansy::Host
