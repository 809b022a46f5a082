#ifndef TANSY_DB_LAYER_POSTGRESQL_SOCKET_WAIT_H
#define TANSY_DB_LAYER_POSTGRESQL_SOCKET_WAIT_H

#include <chrono>

namespace db_layer {

enum class ESocket { kTimedOut, kReadable, kWritable };

// Waits until a socket can be read, or written to when `also_write` is set. A socket that is closed or broken counts as
// readable, because reading tells what is wrong.
ESocket WaitForSocket(int socket, bool also_write, std::chrono::milliseconds patience);

}  // namespace db_layer

#endif  // TANSY_DB_LAYER_POSTGRESQL_SOCKET_WAIT_H
