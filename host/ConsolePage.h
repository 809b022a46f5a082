#ifndef TANSY_HOST_CONSOLE_PAGE_H
#define TANSY_HOST_CONSOLE_PAGE_H

#include <string_view>
#include <vector>

#include "ConsoleMessage.h"
#include "EmbeddedFile.h"

namespace Tansy::Host {

// Answers a request for a file of the console's page. `files` are in the order of their names. The page itself is asked
// for each time, all other files are kept by browsers for ever: their names change with their bytes.
ConsoleAnswer AnswerWithPage(const ConsoleRequest& request, const std::vector<EmbeddedFile>& files);

// Says whether an Accept-Encoding header takes gzip.
bool TakesGzip(std::string_view accept_encoding);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_PAGE_H
