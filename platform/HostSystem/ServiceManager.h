// What a program and the service manager that has started it tell each other. On systems whose manager is systemd the
// messages are those of its notification socket and of its socket activation; elsewhere nothing is said and nothing is
// given.
#ifndef TANSY_HOST_SYSTEM_SERVICE_MANAGER_H
#define TANSY_HOST_SYSTEM_SERVICE_MANAGER_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

namespace HostSystem {

enum class EServiceState {
  kReady,      // it serves; also the end of kReloading
  kReloading,  // it reads its settings again
  kStopping,   // it has begun to end
  kAlive,      // it works as it should; see WatchdogPeriod
};

// Does nothing when no manager listens. Never waits. Threads: any.
void TellServiceManager(EServiceState state);

// The time after which the manager ends a program that has not said kAlive; empty when it does not wait for that.
std::optional<std::chrono::microseconds> WatchdogPeriod();

// Gives the sockets that the manager has opened for this process, once; whoever takes them owns them. Child processes
// do not inherit them. It is called before threads are made, because it changes the environment.
std::vector<std::intptr_t> TakeServiceSockets();

}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_SERVICE_MANAGER_H
