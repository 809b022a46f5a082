#ifndef TANSY_HOST_LISTENING_FILE_H
#define TANSY_HOST_LISTENING_FILE_H

#include "Options.h"

namespace Tansy::Host {

// "listening.toml" in the current folder, the data folder: tells the other programs of this machine at which ports the
// tansyd of this folder is to be found, and at which address when that is not 127.0.0.1. It is there while tansyd runs;
// one that a crash left behind is replaced at the next start.
//
// The server works without it too, so a failure is logged and no more.
void WriteListeningFile(const HostOptions& options);
void RemoveListeningFile();

}  // namespace Tansy::Host

#endif  // TANSY_HOST_LISTENING_FILE_H
