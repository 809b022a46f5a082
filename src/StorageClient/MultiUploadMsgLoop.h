#ifndef TANSY_SRC_STORAGE_CLIENT_MULTI_UPLOAD_MSG_LOOP_H
#define TANSY_SRC_STORAGE_CLIENT_MULTI_UPLOAD_MSG_LOOP_H

#include "TansyBase/MessageLoop.h"

namespace Tansy::CloudStorage {

// The threads that send the parts of one upload; made for that upload and gone with it.
class CMultiUploadMsgLoop : public TansyBase::CMessageLoopDyThreadPool {};

}  // namespace Tansy::CloudStorage

#endif  // TANSY_SRC_STORAGE_CLIENT_MULTI_UPLOAD_MSG_LOOP_H
