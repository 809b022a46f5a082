#ifndef TANSY_HOST_CREDENTIALS_H
#define TANSY_HOST_CREDENTIALS_H

#include <string>

#include "Settings.h"

namespace Tansy::Host {

// The key pair that requests are signed with.
struct CredentialPair {
  std::string access_key;
  std::string secret_key;
};

// The pair of the environment (TANSY_ACCESS_KEY and TANSY_SECRET_KEY), else that of the settings, else a new random one
// that is written into the settings file (made when missing, for its owner only). `created` says that the last was the
// case. Throws CStartFailure: kExitUsage for an environment that makes no sense, kExitFailed for settings that make
// none or cannot be written.
CredentialPair ObtainCredentials(const Settings& settings, const std::string& settings_path, bool& created);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CREDENTIALS_H
