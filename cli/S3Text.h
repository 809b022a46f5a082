// Texts of the S3 protocol as a client reads them. Threads: any.
#ifndef TANSY_CLI_S3_TEXT_H
#define TANSY_CLI_S3_TEXT_H

#include <string>

namespace Tansy::Cli {

// Gives an ETag as its bare text: "\"abc\"" becomes "abc".
std::string WithoutQuotes(const std::string& tag);
// Writes a time like "2026-11-22T10:15:00.000Z" as "2026-11-22 10:15:00"; any other text stays as it is.
std::string ReadableTime(const std::string& text);

}  // namespace Tansy::Cli

#endif  // TANSY_CLI_S3_TEXT_H
