#include "QuietLog.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kModule = "platform.LocalStorage";

struct UsualLine {
  std::string_view format;
  std::string_view begin;  // of the text; the same words mean something elsewhere
};

constexpr std::array kUsualLines = {
    // A request that is signed by its header. One without any signature is refused with a line about the header.
    UsualLine{"[%s]query not found token![%s(%d)]", ""},
    // A new object. A question for one that is not there is answered with a line about its name.
    UsualLine{"[%s]get Object[%s] failed, object not exist.[%s(%d)]", ""},
    // A picture that is read by a link. A link that is refused leaves "check url auth failed", and each other request
    // for pictures that is refused a line of its own.
    UsualLine{"[%s]http header without Authorization![%s(%d)]", "[Tansy::CloudStorage::CPictureServer::"},
    UsualLine{"[%s]HandleDownloadPicture, check auth failed[%s(%d)]", ""},
};

bool IsUsual(const logging::Record& record) {
  return record.module == kModule && std::any_of(kUsualLines.begin(), kUsualLines.end(), [&](const UsualLine& line) {
           return record.format == line.format && record.text.starts_with(line.begin);
         });
}

}  // namespace
}  // namespace details

void CQuietLog::Write(const logging::Record& record) {
  if (logging::IsEnabled(logging::kTrace) || !details::IsUsual(record)) {
    sink_->Write(record);
  }
}

}  // namespace Tansy::Host
