#include "StorageServer/ObjectServer/ObjectServerStorage.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "StorageServer/ObjectServer/ObjectServerErrors.h"
#include "StorageServer/ObjectServer/PieceList.h"

namespace Tansy::CloudStorage::details {

namespace {

// Tells the host that a whole object is meant, not a picture.
constexpr int kObjectFlag = 1;
// Bytes of several pieces are put together in steps of this size, so that they need little more memory than one buffer.
constexpr std::uint32_t kStepBytes = 1024 * 1024;

int CallReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
                  const std::string& location) {
  if (config.read_range == nullptr) {
    return kServerInternalError;
  }
  char* data = nullptr;
  const int result = config.read_range(data, size, offset, location);
  buffer.Take(result, data, size);
  return result;
}

// The two halves of a location: "pool_name:" + bucket + ";", and the url behind it.
struct Halves {
  std::string_view pool;
  std::string_view url;
};

// The name of a bucket may hold a ";", but the text of pieces never does.
Halves Split(std::string_view location) {
  const std::size_t begin = location.rfind(';') + 1;
  return {location.substr(0, begin), location.substr(begin)};
}

// Gives those of the bytes that are asked for; none of them has no size.
std::vector<HostRange> Within(const std::vector<HostRange>& ranges, std::uint32_t size, std::uint32_t offset) {
  const std::uint64_t end = std::uint64_t{offset} + size;
  std::vector<HostRange> within;
  for (const HostRange& range : ranges) {
    const std::uint64_t first = std::max(range.begin, offset);
    const std::uint64_t last = std::min(end, std::uint64_t{range.begin} + range.size);
    if (first < last) {
      within.push_back({range.location, static_cast<std::uint32_t>(range.offset + (first - range.begin)),
                        static_cast<std::uint32_t>(first), static_cast<std::uint32_t>(last - first)});
    }
  }
  return within;
}

// Appends a range to what a buffer holds so far.
int AppendRange(const StorageServerConfig& config, HostBuffer& buffer, const HostRange& range) {
  for (std::uint32_t done = 0; done < range.size;) {
    const std::uint32_t wanted = std::min(kStepBytes, range.size - done);
    HostBuffer step;
    const int result = CallReadRange(config, step, wanted, range.offset + done, range.location);
    if (result != kStorageOk) {
      return result;
    }
    if (!step.data || step.size != wanted) {
      return kServerInternalError;
    }
    std::memcpy(buffer.data.get() + buffer.size, step.data.get(), wanted);
    buffer.size += wanted;
    done += wanted;
  }
  return kStorageOk;
}

}  // namespace

std::string LocationText(std::string_view bucket, std::string_view url) {
  constexpr std::string_view kPrefix = "pool_name:";
  std::string text;
  text.reserve(kPrefix.size() + bucket.size() + 1 + url.size());
  text.append(kPrefix).append(bucket).append(";").append(url);
  return text;
}

int SaveObject(const StorageServerConfig& config, std::string& location, std::string_view data) {
  if (config.save_object == nullptr) {
    return kServerInternalError;
  }
  return config.save_object(location, data.data(), static_cast<std::uint32_t>(data.size()), kObjectFlag);
}

int StreamSave(StreamSaveCallback callback, std::string_view data, std::uint32_t offset, std::string& location) {
  if (callback == nullptr) {
    return kServerInternalError;
  }
  return callback(data.data(), static_cast<std::uint32_t>(data.size()), offset, location);
}

// The host's two callbacks for reading take different arguments, so this function looks like CallReadRange.
int ReadObject(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, const std::string& location) {
  if (config.read_object == nullptr) {
    return kServerInternalError;
  }
  char* data = nullptr;
  const int result = config.read_object(data, size, location, kObjectFlag);
  buffer.Take(result, data, size);
  return result;
}

std::vector<HostRange> HostRanges(const std::string& location, std::uint32_t size, std::uint32_t offset) {
  const Halves halves = Split(location);
  if (!IsPieceList(halves.url)) {
    return {{location, offset, offset, size}};
  }
  const std::uint64_t end = std::uint64_t{offset} + size;
  std::vector<HostRange> ranges;
  std::uint64_t begin = 0;
  for (const Piece& piece : ReadPieceList(halves.url)) {
    const std::uint64_t next = begin + piece.size;
    if (piece.size > 0 && next > offset && begin < end) {
      ranges.push_back({std::string(halves.pool) + piece.url, 0, static_cast<std::uint32_t>(begin), piece.size});
    }
    begin = next;
  }
  return ranges;
}

int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::string& location) {
  return IsPieceList(Split(location).url) ? ReadRange(config, buffer, size, offset, HostRanges(location, size, offset))
                                          : CallReadRange(config, buffer, size, offset, location);
}

int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::vector<HostRange>& ranges) {
  const std::vector<HostRange> wanted = Within(ranges, size, offset);
  if (wanted.empty()) {
    return kServerInternalError;
  }
  if (wanted.size() == 1) {
    const HostRange& range = wanted.front();
    return CallReadRange(config, buffer, range.size, range.offset, range.location);
  }
  std::size_t total = 0;
  for (const HostRange& range : wanted) {
    total += range.size;
  }
  HostBuffer whole;
  whole.data.reset(static_cast<char*>(std::malloc(total + 1)));
  if (!whole.data) {
    throw std::bad_alloc();
  }
  for (const HostRange& range : wanted) {
    if (const int result = AppendRange(config, whole, range); result != kStorageOk) {
      return result;
    }
  }
  buffer = std::move(whole);
  return kStorageOk;
}

int RemoveStored(const StorageServerConfig& config, const std::string& location) {
  return config.remove_object != nullptr ? config.remove_object(location) : kServerInternalError;
}

int WriteError(int storage_result) {
  return storage_result == kStorageFull ? kNotEnoughSpace : kServerInternalError;
}

}  // namespace Tansy::CloudStorage::details
