// What the commands of the picture service share.
#ifndef TANSY_CLI_PICTURE_LINK_H
#define TANSY_CLI_PICTURE_LINK_H

#include <string>

#include "Failure.h"
#include "Settings.h"
#include "TansyCloudStorage/PictureClient.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {

CloudStorage::CPictureClient MakePictureClient(const Settings& settings, const std::string& pool);

// What the client's last failure means. `server` is the one that the client was made for.
CFailure FailureOfPictureClient(const CloudStorage::CPictureClient& client, const ServerAddress& server);

// The answer's document to a signed GET of the picture server. Throws CFailure about `subject`.
TansyProto::CRapidJsonProto RequestPictureInfo(const Settings& settings, const std::string& target,
                                               const std::string& subject);

// Reads "/pic?...", or a whole address of the picture server of `settings`; returns path and query. Throws CFailure
// with kExitUsage, also for the address of another server: requests carry signatures.
std::string ParsePictureUrl(const std::string& text, const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PICTURE_LINK_H
