#ifndef TANSY_HOST_LISTENING_FILE_H
#define TANSY_HOST_LISTENING_FILE_H

#include "Options.h"

namespace Tansy::Host {

// Writes "listening.toml" in the current folder, which is the data folder. The file tells the other programs of this
// machine at which ports the tansyd of this folder listens, and at which address when that is not 127.0.0.1. It is
// there while tansyd runs; a file that a crash left behind is replaced at the next start.
//
// The server works without the file too, so a failure is only logged.
void WriteListeningFile(const HostOptions& options);
void RemoveListeningFile();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_LISTENING_FILE_H
