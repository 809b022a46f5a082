#ifndef TANSY_HOST_SERVER_FIGURES_H
#define TANSY_HOST_SERVER_FIGURES_H

#include <string>

#include "Metrics.h"

namespace Tansy::Host {

// Gives what the server is, has and has done since its start, as JSON for programs that show it to people. Totals only
// grow: whoever asks twice makes rates of them. Threads: any. It takes some 100 microseconds.
std::string ServerFiguresJson(const MetricsSource& source);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_SERVER_FIGURES_H
