#ifndef TANSY_HOST_PRINTABLE_TEXT_H
#define TANSY_HOST_PRINTABLE_TEXT_H

#include <string>

namespace Tansy::Host {

// Makes a text that comes from elsewhere fit for a line of its own: "?" stands for each control character.
std::string Printable(std::string text);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_PRINTABLE_TEXT_H
