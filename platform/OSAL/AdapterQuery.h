// The part of the adapter list that differs between operating systems. Internal to OSAL.
#ifndef TANSY_OSAL_ADAPTER_QUERY_H
#define TANSY_OSAL_ADAPTER_QUERY_H

#include "OSAL/AdapterInfo.h"

namespace osal_internal {

// Does what OSAL_GetAdapterInfo promises.
int QueryAdapters(OSAL_AdapterInfo** adapters);

}  // namespace osal_internal

#endif  // TANSY_OSAL_ADAPTER_QUERY_H
