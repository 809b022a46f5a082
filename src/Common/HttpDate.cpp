#include "Common/HttpDate.h"

#include "TansyBase/HttpDate.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::CloudStorage {

// The text is made once per second and thread.
std::string FormatHttpDate() {
  thread_local std::time_t second = -1;
  thread_local std::string text;
  const std::time_t now = TansyBase::TimeUtil::Now();
  if (now != second) {
    text = TansyBase::HttpDate::Format(now, ' ');
    second = now;
  }
  return text;
}

std::time_t ParseHttpDate(std::string_view text) {
  return TansyBase::HttpDate::Parse(text);
}

}  // namespace Tansy::CloudStorage
