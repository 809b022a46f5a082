#ifndef TANSY_HOST_CREDENTIALS_H
#define TANSY_HOST_CREDENTIALS_H

#include <optional>
#include <string>

#include "Settings.h"

namespace Tansy::Host {

// The key pair that requests are signed with.
struct CredentialPair {
  std::string access_key;
  std::string secret_key;
};

// Makes a random pair of letters and digits. Throws CStartFailure when the system has no random bytes.
CredentialPair MakeCredentials();

// Gives the key pair of the environment (TANSY_ACCESS_KEY and TANSY_SECRET_KEY), else that of the settings; empty when
// there is none. Throws CStartFailure as ObtainCredentials does.
std::optional<CredentialPair> FindCredentials(const Settings& settings, const std::string& settings_path);

// Gives the key pair of the environment (TANSY_ACCESS_KEY and TANSY_SECRET_KEY), else that of the settings, else a new
// random pair. A new pair is written into the settings file, which is made when it is missing, readable for its owner
// only; `created` then says so. Throws CStartFailure: kExitUsage when the environment makes no sense, kExitFailed when
// the settings make no sense or cannot be written.
CredentialPair ObtainCredentials(const Settings& settings, const std::string& settings_path, bool& created);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CREDENTIALS_H
