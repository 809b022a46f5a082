#ifndef TANSY_HOST_CONSOLE_FIGURES_H
#define TANSY_HOST_CONSOLE_FIGURES_H

#include <string>
#include <vector>

#include "Metrics.h"

namespace Tansy::Host {

// Gives what the console's first page shows, as JSON. Counters begin with the process; requests to the admin port are
// counted by their service only, because most of them come from the page itself. Whoever is no operator is told that
// the server is well or in trouble and how busy it is, and neither what it holds nor how it is equipped. Threads: any.
// It takes some 100 microseconds.
std::string ConsoleFigures(const MetricsSource& source, bool is_operator);

// Gives what each of these buckets has, as JSON; an empty list stands for all buckets.
std::string ConsoleBuckets(const std::vector<std::string>& only);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CONSOLE_FIGURES_H
