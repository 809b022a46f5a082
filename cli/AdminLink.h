#ifndef TANSY_CLI_ADMIN_LINK_H
#define TANSY_CLI_ADMIN_LINK_H

#include <string>

#include "S3Link.h"
#include "Settings.h"

namespace Tansy::Cli {

// Sends signed requests to the admin port of a server, whose answers are JSON. Threads: any.
class CAdminLink {
 public:
  // Throws CFailure with kExitUsage when the settings name no admin port.
  explicit CAdminLink(const Settings& settings);

  // Sends a request about `path` below /admin, such as "keys", and gives the body of its answer. Throws CFailure, with
  // the server's words when it has any.
  std::string Request(const std::string& method, const std::string& path, const std::string& body = {}) const;

 private:
  CFailure FailureOf(const LinkOutcome& outcome) const;

  const CS3Link link_;
};

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_ADMIN_LINK_H
