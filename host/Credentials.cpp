#include "Credentials.h"

#include <openssl/rand.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "HostSystem/Files.h"
#include "HostSystem/Process.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kAccessKeyLength = 20;
constexpr std::size_t kSecretKeyLength = 40;

// Keys consist of letters and digits, because these alone pass unchanged through headers, shells and settings files.
std::string RandomText(std::size_t length) {
  constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  constexpr unsigned int kFairLimit = 256 - 256 % kAlphabet.size();  // bytes from here on would favour some characters
  std::string text;
  while (text.size() < length) {
    unsigned char bytes[64];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
      throw CStartFailure(kExitFailed, "the system's random generator gives nothing");
    }
    for (const unsigned char byte : bytes) {
      if (byte < kFairLimit && text.size() < length) {
        text += kAlphabet[byte % kAlphabet.size()];
      }
    }
  }
  return text;
}

bool IsPrintable(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

// Refuses keys that anybody can guess and keys that would break the Authorization header. This is the place where the
// operator can still change them.
void CheckPair(const CredentialPair& pair, int exit_code, const std::string& access_name,
               const std::string& secret_name) {
  if (!IsPrintable(pair.access_key) || pair.access_key.find(':') != std::string::npos) {
    throw CStartFailure(exit_code, access_name + " must be printable ASCII without blanks and colons, and not empty");
  }
  if (!IsPrintable(pair.secret_key)) {
    throw CStartFailure(exit_code, secret_name + " must be printable ASCII without blanks, and not empty");
  }
}

CredentialPair CreatePair(const std::string& settings_path) {
  CredentialPair pair = MakeCredentials();
  std::string content;
  int error = HostSystem::ReadWholeFile(settings_path, kLargestSettingsFile, content);
  if (error == ENOENT) {
    content = "# Settings of tansyd: the names of its command-line options, such as object-port = 9700.\n";
    error = 0;
  }
  if (error == 0) {
    const std::string changed = AddCredentials(content, pair.access_key, pair.secret_key);
    // The new text is read back before the file is replaced, so that a file of an unusual shape is never spoilt.
    const Settings settings = ParseSettings(changed, settings_path, true);
    if (settings.access_key != pair.access_key || settings.secret_key != pair.secret_key) {
      throw CStartFailure(kExitFailed, "settings file " + settings_path +
                                           ": write a table [credentials] with access_key and secret_key into it");
    }
    error = HostSystem::ReplaceFile(settings_path, changed);
  }
  if (error != 0) {
    throw CStartFailure(kExitFailed, "settings file " + settings_path +
                                         ": new credentials cannot be written: " + HostSystem::ErrorText(error));
  }
  return pair;
}

}  // namespace
}  // namespace details

CredentialPair MakeCredentials() {
  return {details::RandomText(details::kAccessKeyLength), details::RandomText(details::kSecretKeyLength)};
}

std::optional<CredentialPair> FindCredentials(const Settings& settings, const std::string& settings_path) {
  CredentialPair pair = {HostSystem::Environment("TANSY_ACCESS_KEY"), HostSystem::Environment("TANSY_SECRET_KEY")};
  const bool has_access_key = HostSystem::HasEnvironment("TANSY_ACCESS_KEY");
  if (has_access_key != HostSystem::HasEnvironment("TANSY_SECRET_KEY")) {
    throw CStartFailure(kExitUsage, "set both TANSY_ACCESS_KEY and TANSY_SECRET_KEY, or neither");
  }
  if (has_access_key) {
    details::CheckPair(pair, kExitUsage, "TANSY_ACCESS_KEY", "TANSY_SECRET_KEY");
    return pair;
  }
  if (!settings.access_key.empty()) {
    pair = {settings.access_key, settings.secret_key};
    const std::string file = "settings file " + settings_path + ": ";
    details::CheckPair(pair, kExitFailed, file + "access_key", file + "secret_key");
    return pair;
  }
  return std::nullopt;
}

CredentialPair ObtainCredentials(const Settings& settings, const std::string& settings_path, bool& created) {
  const std::optional<CredentialPair> found = FindCredentials(settings, settings_path);
  created = !found.has_value();
  return found.has_value() ? *found : details::CreatePair(settings_path);
}

}  // namespace Tansy::Host
