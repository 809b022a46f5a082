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

// What a call into the picture client that has just failed on this thread means.
CFailure FailureOfPictureClient(const std::string& server);

// The answer's document to a signed GET of the picture server. Throws CFailure about `subject`.
TansyProto::CRapidJsonProto RequestPictureInfo(const Settings& settings, const std::string& target,
                                               const std::string& subject);

// Reads "/pic?...", or a whole address, which becomes the picture server of `settings`; returns path and query. Throws
// CFailure with kExitUsage.
std::string ParsePictureUrl(const std::string& text, Settings& settings);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_PICTURE_LINK_H
