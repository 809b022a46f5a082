// Functions that the commands of the picture service share.
#ifndef TANSY_CLI_PICTURE_LINK_H
#define TANSY_CLI_PICTURE_LINK_H

#include <string>

#include "Failure.h"
#include "Settings.h"
#include "TansyCloudStorage/PictureClient.h"
#include "TansyProto/RapidJsonProto.h"

namespace Tansy::Cli {

CloudStorage::CPictureClient MakePictureClient(const Settings& settings, const std::string& pool);

// Explains the client's last failure. `server` is the one that the client was made for.
CFailure FailureOfPictureClient(const CloudStorage::CPictureClient& client, const ServerAddress& server);

// Sends a signed GET to the picture server and gives the document of its answer. Throws CFailure about `subject`.
TansyProto::CRapidJsonProto RequestPictureInfo(const Settings& settings, const std::string& target,
                                               const std::string& subject);

// Reads "/pic?...", or a whole address of the picture server of `settings`, and returns path and query. Throws CFailure
// with kExitUsage, also for the address of another server, because requests carry signatures.
std::string ParsePictureUrl(const std::string& text, const Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PICTURE_LINK_H
