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

// A range of one piece.
struct PieceRange {
  const Piece* piece;
  std::uint32_t offset;  // inside the piece
  std::uint32_t size;
};

std::vector<PieceRange> RangesOf(const PieceList& pieces, std::uint32_t size, std::uint32_t offset) {
  std::vector<PieceRange> ranges;
  std::uint64_t begin = offset;  // counted from the current piece
  std::uint64_t left = size;
  for (const Piece& piece : pieces) {
    if (begin < piece.size && left > 0) {
      const std::uint64_t count = std::min(left, piece.size - begin);
      ranges.push_back({&piece, static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(count)});
      left -= count;
      begin = 0;
    } else {
      begin -= std::min<std::uint64_t>(begin, piece.size);
    }
  }
  return ranges;
}

// Appends a range of a piece to what a buffer holds so far.
int AppendRange(const StorageServerConfig& config, HostBuffer& buffer, const PieceRange& range,
                const std::string& location) {
  for (std::uint32_t done = 0; done < range.size;) {
    const std::uint32_t wanted = std::min(kStepBytes, range.size - done);
    HostBuffer step;
    const int result = CallReadRange(config, step, wanted, range.offset + done, location);
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

int ReadPieces(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
               const Halves& halves) {
  const PieceList pieces = ReadPieceList(halves.url);
  if (pieces.empty()) {
    return kServerInternalError;
  }
  const std::vector<PieceRange> ranges = RangesOf(pieces, size, offset);
  if (ranges.size() == 1) {
    const PieceRange& range = ranges.front();
    return CallReadRange(config, buffer, range.size, range.offset, std::string(halves.pool) + range.piece->url);
  }
  std::size_t total = 0;
  for (const PieceRange& range : ranges) {
    total += range.size;
  }
  HostBuffer whole;
  whole.data.reset(static_cast<char*>(std::malloc(total + 1)));
  if (!whole.data) {
    throw std::bad_alloc();
  }
  for (const PieceRange& range : ranges) {
    const std::string location = std::string(halves.pool) + range.piece->url;
    if (const int result = AppendRange(config, whole, range, location); result != kStorageOk) {
      return result;
    }
  }
  buffer = std::move(whole);
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

int ReadRange(const StorageServerConfig& config, HostBuffer& buffer, std::uint32_t size, std::uint32_t offset,
              const std::string& location) {
  const Halves halves = Split(location);
  return IsPieceList(halves.url) ? ReadPieces(config, buffer, size, offset, halves)
                                 : CallReadRange(config, buffer, size, offset, location);
}

std::vector<std::string> HostLocations(const std::string& location) {
  const Halves halves = Split(location);
  if (!IsPieceList(halves.url)) {
    return {location};
  }
  std::vector<std::string> locations;
  for (const Piece& piece : ReadPieceList(halves.url)) {
    locations.push_back(std::string(halves.pool) + piece.url);
  }
  return locations;
}

int RemoveStored(const StorageServerConfig& config, const std::string& location) {
  return config.remove_object != nullptr ? config.remove_object(location) : kServerInternalError;
}

int WriteError(int storage_result) {
  return storage_result == kStorageFull ? kNotEnoughSpace : kServerInternalError;
}

}  // namespace Tansy::CloudStorage::details
