#include "OSAL/Osal.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <limits>
#include <thread>
#include <utility>

#include "OSAL/AdapterQuery.h"

namespace osal_internal {
namespace {

std::atomic<OSAL_AdapterSource> adapter_source{nullptr};

}  // namespace
}  // namespace osal_internal

int OSAL_GetAdapterInfo(OSAL_AdapterInfo** adapters) {
  *adapters = nullptr;
  const OSAL_AdapterSource source = osal_internal::adapter_source.load();
  return source != nullptr ? source(adapters) : osal_internal::QueryAdapters(adapters);
}

void OSAL_SetAdapterSource(OSAL_AdapterSource source) {
  osal_internal::adapter_source.store(source);
}

void OSAL_Sleep(std::uint32_t milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::int32_t OSAL_StrToi32(const char* text) {
  if (text == nullptr) {
    return 0;
  }
  // `long` has 64 bits on some systems and 32 on others; the limits of long long are far outside either.
  const long long value = std::strtoll(text, nullptr, 10);
  return static_cast<std::int32_t>(
      std::clamp<long long>(value, std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max()));
}

int OSAL_Memset_s(void* buffer, std::size_t size, int value, std::size_t count) {
  if (buffer == nullptr) {
    return -1;
  }
  // The compiler keeps writes through a volatile pointer, even when nobody reads the buffer again.
  volatile unsigned char* const bytes = static_cast<unsigned char*>(buffer);
  const std::size_t filled = std::min(size, count);
  for (std::size_t i = 0; i < filled; ++i) {
    bytes[i] = static_cast<unsigned char>(value);
  }
  return count <= size ? 0 : -1;
}
