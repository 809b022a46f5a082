// Threads for what takes long and is no download, so that it never waits in one queue behind slow readers.
#ifndef TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_THREADS_H
#define TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_THREADS_H

#include "Singleton.h"
#include "StorageServer/ObjectServer/ObjectServerBigSend.h"

namespace Tansy::CloudStorage::S3 {

// Copies. One has a chunk in memory, and waits for the storage and, when memory is short, for its chunk.
class CCopyThreads : public CloudStorage::details::CWaitingThreads {
 public:
  static CCopyThreads& Instance() { return CSingleton<CCopyThreads>::Instance(); }

 private:
  friend class CSingleton<CCopyThreads>;
  CCopyThreads() : CWaitingThreads("tansy-copy", 32, 1024) {}
  ~CCopyThreads() = default;
};

// Entity tags of long objects. More of them at a time would only make the storage slower for everybody.
class CTagThreads : public CloudStorage::details::CWaitingThreads {
 public:
  static CTagThreads& Instance() { return CSingleton<CTagThreads>::Instance(); }

 private:
  friend class CSingleton<CTagThreads>;
  CTagThreads() : CWaitingThreads("tansy-tag", 4, 1024) {}
  ~CTagThreads() = default;
};

}  // namespace Tansy::CloudStorage::S3

#endif  // TANSY_SRC_STORAGE_SERVER_S3_SERVER_S3_THREADS_H
