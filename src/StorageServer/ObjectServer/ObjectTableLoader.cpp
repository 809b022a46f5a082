#include "StorageServer/ObjectServer/ObjectTableLoader.h"

#include <exception>
#include <utility>

#include "OSAL/Osal.h"

namespace Tansy::CloudStorage {

CObjectTableLoader::~CObjectTableLoader() {
  if (thread_.joinable()) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      has_ended_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }
  PutAll(filling_);
}

void CObjectTableLoader::Add(CPackedObject::Pointer object) {
  filling_.push_back(std::move(object));
  if (filling_.size() >= kBatch) {
    HandBatchOver();
  }
}

// Batches come into the table in their order, because the first object of a name counts.
void CObjectTableLoader::HandBatchOver() {
  if (!HasThread()) {
    PutAll(filling_);
    return;
  }
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return waiting_.empty(); });
    waiting_.swap(filling_);
  }
  changed_.notify_all();
}

bool CObjectTableLoader::HasThread() noexcept {
  if (!thread_.joinable()) {
    try {
      thread_ = std::thread([this] { Work(); });
    } catch (const std::exception&) {
      return false;
    }
  }
  return true;
}

void CObjectTableLoader::Work() noexcept {
  OSAL_SetThreadName("tansy-load");
  Batch own;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return has_ended_ || !waiting_.empty(); });
    if (waiting_.empty()) {
      return;
    }
    own.swap(waiting_);  // the vectors go round, so none of them needs new memory
    lock.unlock();
    changed_.notify_all();
    PutAll(own);
    lock.lock();
  }
}

void CObjectTableLoader::PutAll(Batch& batch) noexcept {
  for (CPackedObject::Pointer& object : batch) {
    table_.Add(std::move(object));
  }
  batch.clear();
}

}  // namespace Tansy::CloudStorage
