#ifndef TANSY_HOST_HOST_H
#define TANSY_HOST_HOST_H

namespace Tansy::Host {

// Runs tansyd from its arguments to its exit code: starts both servers, prints the ready line, serves until a stop
// signal comes, and stops. A failure during the start becomes one line on standard error.
int Run(int argc, char** argv);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOST_H
