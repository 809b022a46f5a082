// Somebody at the web console, as the page's script would ask for him.
#ifndef TANSY_TESTS_SYSTEM_SUPPORT_CONSOLE_USER_H
#define TANSY_TESTS_SYSTEM_SUPPORT_CONSOLE_USER_H

#include <cstdint>
#include <string>

#include "support/Http.h"

namespace system_tests {

// A POST with a JSON body.
Reply PostJson(std::uint16_t port, const std::string& target, const std::string& body, HeaderList headers = {});

// Takes a challenge and answers it.
Reply SignInAtConsole(std::uint16_t port, const Keys& keys = {});

// The headers that requests of a session carry, after signing in; a failure is reported to the running test.
HeaderList SignedInAtConsole(std::uint16_t port, const Keys& keys = {});

// A text member of a JSON object that has no escapes in it; "" when there is none.
std::string JsonMember(const std::string& json, const std::string& name);

}  // namespace system_tests

#endif  // TANSY_TESTS_SYSTEM_SUPPORT_CONSOLE_USER_H
