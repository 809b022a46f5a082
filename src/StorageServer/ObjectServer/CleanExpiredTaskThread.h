#ifndef TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H
#define TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H

#include "Singleton.h"
#include "TansyBase/SingleBaseThread.h"

namespace Tansy::CloudStorage {

// Forgets multipart upload tasks whose lowest-numbered part was last written more than three days ago: once at its
// start, then once a day, in the hour after midnight (UTC), given that it is started with a period of an hour. Stored
// bytes and temporary files stay. A time of day that is set, in either direction, makes no task older or younger.
class CCleanExpiredTaskThread : public TansyBase::CSingleBaseThread {
 public:
  static CCleanExpiredTaskThread& Instance();

  CCleanExpiredTaskThread() : CSingleBaseThread("tansy-sweep") {}
  ~CCleanExpiredTaskThread() override;

  // One call of the thread. Not for more than one thread at a time.
  void OnTimer() override;

 private:
  bool has_run_ = false;
};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_SERVER_OBJECT_SERVER_CLEAN_EXPIRED_TASK_THREAD_H
