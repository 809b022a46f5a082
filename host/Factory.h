#ifndef TANSY_HOST_FACTORY_H
#define TANSY_HOST_FACTORY_H

#include <memory>
#include <string>

#include "KivPlatform/FactoryInterface.h"

namespace Tansy::Host {

// Makes the interfaces that the module asks a host for: a SQLite catalogue at `file`, and a configuration manager. The
// manager keeps listeners but has nothing to tell them, because the settings of a running tansyd do not change.
std::shared_ptr<KivPlatform::IFactoryInterface> MakeFactory(const std::string& file);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FACTORY_H
