#include "ListeningFile.h"

#include <cerrno>
#include <string>

#include "Addresses.h"
#include "HostLog.h"
#include "HostSystem/Files.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {

namespace details {
namespace {

constexpr const char* kListeningFile = "listening.toml";

void LogFailure(const char* what, int error) {
  HOST_LOG(logging::kError, "[%s]%s cannot be %s: %s.[%s(%d)]", kListeningFile, what,
           HostSystem::ErrorText(error).c_str());
}

std::string Line(const char* name, std::uint16_t port) {
  return std::string(name) + " = " + std::to_string(port) + "\n";
}

}  // namespace
}  // namespace details

void WriteListeningFile(const HostOptions& options) {
  // The address is written only when it is not the one that everybody would try.
  const std::string address = LoopbackAddress(options.listen);
  const std::string address_line = address == "127.0.0.1" ? "" : "address = \"" + address + "\"\n";
  const std::string content =
      "# Where the tansyd of this folder listens. Written when it starts, removed when it stops.\n" + address_line +
      details::Line("object-port", options.object_port) +
      details::Line("object-https-port", options.object_https_port) +
      details::Line("picture-port", options.picture_port) +
      details::Line("picture-https-port", options.picture_https_port) + details::Line("s3-port", options.s3_port) +
      details::Line("s3-https-port", options.s3_https_port) +
      details::Line("admin-port", options.admin_port.value_or(0));
  if (const int error = HostSystem::ReplaceFile(details::kListeningFile, content); error != 0) {
    details::LogFailure("written", error);
  }
}

void RemoveListeningFile() {
  if (const int error = TansyBase::FileUtil::RemoveFile(details::kListeningFile); error != 0 && error != ENOENT) {
    details::LogFailure("removed", error);
  }
}

}  // namespace Tansy::Host
