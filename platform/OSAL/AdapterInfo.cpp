#include "OSAL/AdapterInfo.h"

#include <utility>

void OSAL_FreeAdapterInfo(OSAL_AdapterInfo* adapters) {
  while (adapters != nullptr) {
    while (adapters->ipv4 != nullptr) {
      delete std::exchange(adapters->ipv4, adapters->ipv4->next);
    }
    while (adapters->ipv6 != nullptr) {
      delete std::exchange(adapters->ipv6, adapters->ipv6->next);
    }
    delete std::exchange(adapters, adapters->next);
  }
}
