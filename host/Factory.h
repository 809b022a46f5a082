#ifndef TANSY_HOST_FACTORY_H
#define TANSY_HOST_FACTORY_H

#include <memory>

#include "KivPlatform/FactoryInterface.h"
#include "db_layer/Connect.h"

namespace Tansy::Host {

// Makes the interfaces that the module asks a host for: where the catalogue is, and a configuration manager. The
// manager keeps listeners but has nothing to tell them, because the settings of a running tansyd do not change.
std::shared_ptr<KivPlatform::IFactoryInterface> MakeFactory(const db_layer::DBParam& database);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_FACTORY_H
