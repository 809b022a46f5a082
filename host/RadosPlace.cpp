#include "RadosPlace.h"

#include <cerrno>
#include <vector>

#include "HostSystem/Files.h"
#include "HostSystem/Process.h"
#include "RadosStore.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kIdObject = "store.id";

}  // namespace
}  // namespace details

CRadosPlace::CRadosPlace(const RadosUrl& url)
    : pool_(std::make_shared<CRadosPool>(url)),
      lock_(pool_, HostSystem::HostName() + ":" + HostSystem::AbsolutePath(".")) {}

std::string CRadosPlace::HowToSetId(const std::string& id) const {
  return "is it the right pool? If it is, make " + id + " the content of its object " + details::kIdObject;
}

int CRadosPlace::ReadId(std::string& text) {
  return pool_->ReadText(details::kIdObject, kMostId, text);
}

int CRadosPlace::WriteId(const std::string& text) {
  return pool_->WriteText(details::kIdObject, text);
}

int CRadosPlace::RemoveId() {
  RadosChange change;
  change.object = details::kIdObject;
  change.removes = true;
  CRadosBatch batch(*pool_);
  batch.Start(change);
  batch.Wait();
  return change.result == ENOENT ? 0 : change.result;
}

void CRadosPlace::ExpectFree() {
  std::string holder;
  const int error = lock_.Look(holder);
  Expect(error, holder);
}

void CRadosPlace::Lock() {
  std::string holder;
  const int error = lock_.Take(CRadosPool::ELock::kAlone, holder);
  Expect(error, holder);
}

void CRadosPlace::Share() {
  std::string holder;
  const int error = lock_.Take(CRadosPool::ELock::kShared, holder);
  Expect(error, holder);
}

bool CRadosPlace::IsInUse() {
  std::string holder;
  return lock_.Look(holder) == EBUSY;
}

void CRadosPlace::Expect(int error, const std::string& holder) const {
  if (error == EBUSY) {
    throw CStartFailure(kExitFailed,
                        Describe() + " is in use by another tansyd (" + holder + "), or was so less than a minute ago");
  }
  if (error == EPERM || error == EACCES) {
    throw CStartFailure(kExitFailed, Describe() + " may not be used by this user: it needs \"osd allow rwx\" there");
  }
  if (error != 0) {
    throw CStartFailure(kExitFailed, Describe() + " cannot be used: " + HostSystem::ErrorText(error));
  }
}

std::unique_ptr<IObjectStore> CRadosPlace::Open(bool /*full_durability*/, EStoreUse use) {
  return OpenRadosStore(pool_, use);
}

}  // namespace Tansy::Host
