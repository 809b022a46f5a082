#include "Common/HttpDate.h"

#include "TansyBase/HttpDate.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

std::string FormatHttpDate() {
  return TansyBase::HttpDate::Format(TansyBase::TimeUtil::Now(), ' ');
}

std::time_t ParseHttpDate(std::string_view text) {
  return TansyBase::HttpDate::Parse(text);
}

}  // namespace Tansy::CloudStorage
