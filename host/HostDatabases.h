#ifndef TANSY_HOST_HOST_DATABASES_H
#define TANSY_HOST_HOST_DATABASES_H

#include <memory>

#include "HostDatabase.h"

namespace Tansy::Host {

enum class EDatabaseUse {
  kChange,
  kLook,  // changes nothing, and works beside a running tansyd
};

// Opens the database, which must be there, with a catalogue of the newest version in it. Throws CStartFailure.
std::unique_ptr<IHostDatabase> OpenHostDatabase(const db_layer::DBParam& database, EDatabaseUse use);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOST_DATABASES_H
