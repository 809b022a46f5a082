#ifndef TANSY_HOST_RUNNING_REQUESTS_H
#define TANSY_HOST_RUNNING_REQUESTS_H

#include <string>

namespace Tansy::Host {

// Gives the requests that run now as JSON, the oldest first, at most 1,000 of them. Links carry what signs them in
// their query, which is not shown. Threads: any.
std::string RunningRequestsJson();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_RUNNING_REQUESTS_H
