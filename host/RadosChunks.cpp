#include "RadosChunks.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

#include "ReadCache.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kVolumeLength = 4;
constexpr std::size_t kIdLength = 32;
constexpr std::size_t kNumberLength = 8;
constexpr std::uint64_t kMostBytes = std::uint64_t{kRadosChunk} * kMostRadosChunks;

// The part of a range that lies in one chunk.
struct Piece {
  std::uint32_t chunk = 0;
  std::uint32_t offset = 0;  // in the chunk
  std::size_t position = 0;  // in the range
  std::uint32_t size = 0;
};

std::vector<Piece> Cut(std::uint64_t offset, std::size_t size) {
  std::vector<Piece> pieces;
  for (std::size_t done = 0; done < size;) {
    const std::uint64_t at = offset + done;
    Piece piece;
    piece.chunk = static_cast<std::uint32_t>(at / kRadosChunk);
    piece.offset = static_cast<std::uint32_t>(at % kRadosChunk);
    piece.position = done;
    piece.size = static_cast<std::uint32_t>(std::min<std::size_t>(size - done, kRadosChunk - piece.offset));
    pieces.push_back(piece);
    done += piece.size;
  }
  return pieces;
}

void SetData(RadosChange& change, std::string_view data, const Piece& piece) {
  change.writes = true;
  change.data = data.data() + piece.position;
  change.size = piece.size;
  change.offset = piece.offset;
}

int FirstError(const std::vector<RadosChange>& changes, int passed_over) {
  for (const RadosChange& change : changes) {
    if (change.result != 0 && change.result != passed_over) {
      return change.result;
    }
  }
  return 0;
}

int RunAll(CRadosPool& pool, std::vector<RadosChange>& changes) {
  CRadosBatch batch(pool);
  for (RadosChange& change : changes) {
    batch.Start(change);
  }
  batch.Wait();
  return FirstError(changes, 0);
}

// Removes what these changes have written.
int TakeBack(CRadosPool& pool, const std::vector<RadosChange>& changes) {
  std::vector<RadosChange> removals(changes.size());
  for (std::size_t i = 0; i < changes.size(); ++i) {
    removals[i].object = changes[i].object;
    removals[i].removes = true;
  }
  RunAll(pool, removals);
  return FirstError(removals, ENOENT);
}

}  // namespace
}  // namespace details

std::string ChunkName(const StoredName& name, std::uint32_t chunk) {
  unsigned char bytes[details::kNumberLength / 2];
  for (std::size_t i = sizeof bytes; i-- > 0; chunk >>= 8) {
    bytes[i] = static_cast<unsigned char>(chunk & 255);
  }
  const std::string folder = name.folder == kRadosFolder ? "" : name.folder;
  return name.volume + folder + "." + name.id + "." + HexText(bytes, sizeof bytes);
}

bool ParseChunkName(std::string_view object, StoredName& name, std::uint32_t& chunk) {
  using details::kIdLength;
  using details::kNumberLength;
  using details::kVolumeLength;
  constexpr std::size_t kTail = kIdLength + kNumberLength + 2;  // from the first dot on
  constexpr std::size_t kFolderLength = 4;
  const std::size_t place = object.size() - std::min(object.size(), kTail);
  if ((place != kVolumeLength && place != kVolumeLength + kFolderLength) || object[place] != '.' ||
      object[place + 1 + kIdLength] != '.') {
    return false;
  }
  const std::string_view folder = object.substr(kVolumeLength, place - kVolumeLength);
  const std::string_view id = object.substr(place + 1, kIdLength);
  const std::string_view number = object.substr(object.size() - kNumberLength);
  if (!IsHex(id, kIdLength) || !IsHex(number, kNumberLength) || !IsHex(folder, folder.size()) ||
      folder == kRadosFolder) {
    return false;
  }
  std::from_chars(number.data(), number.data() + number.size(), chunk, 16);
  name.volume = object.substr(0, kVolumeLength);
  name.folder = folder.empty() ? std::string_view(kRadosFolder) : folder;
  name.id = id;
  return true;
}

std::uint32_t ChunkCount(std::uint64_t size) {
  const std::uint64_t count = std::max<std::uint64_t>((size + kRadosChunk - 1) / kRadosChunk, 1);
  return static_cast<std::uint32_t>(std::min<std::uint64_t>(count, kMostRadosChunks));
}

int CRadosChunks::WriteNew(const StoredName& name, std::uint64_t offset, std::string_view data, bool head_last,
                           bool& left_behind) {
  left_behind = false;
  if (offset > details::kMostBytes - data.size()) {
    return EFBIG;
  }
  std::vector<RadosChange> others;
  RadosChange head;
  head.object = ChunkName(name, 0);
  head.writes = true;
  head.sets_size = true;
  head.whole_size = offset + data.size();
  for (const details::Piece& piece : details::Cut(offset, data.size())) {
    RadosChange& change = piece.chunk == 0 ? head : others.emplace_back();
    change.object = ChunkName(name, piece.chunk);
    details::SetData(change, data, piece);
    change.replaces = piece.offset == 0;
  }
  {
    CRadosBatch batch(pool_);
    for (RadosChange& change : others) {
      batch.Start(change);
    }
    if (head_last) {
      batch.Wait();
    }
    if (!head_last || details::FirstError(others, 0) == 0) {
      batch.Start(head);
    }
    batch.Wait();
  }
  others.push_back(head);
  const int error = details::FirstError(others, 0);
  if (error != 0) {
    // A cluster that gives no answer is not asked again at once, and may still carry out what it was told.
    left_behind = error == ETIMEDOUT || details::TakeBack(pool_, others) != 0;
  }
  return error;
}

int CRadosChunks::WriteMore(const StoredName& name, std::uint64_t offset, std::string_view data) {
  if (offset > details::kMostBytes - data.size()) {
    return EFBIG;
  }
  std::vector<RadosChange> changes;
  for (const details::Piece& piece : details::Cut(offset, data.size())) {
    RadosChange& change = changes.emplace_back();
    change.object = ChunkName(name, piece.chunk);
    change.only_existing = piece.chunk == 0;
    details::SetData(change, data, piece);
  }
  RadosChange head;
  head.object = ChunkName(name, 0);
  head.only_existing = head.only_larger = head.sets_size = true;
  head.whole_size = offset + data.size();
  {
    CRadosBatch batch(pool_);
    for (RadosChange& change : changes) {
      batch.Start(change);
    }
    batch.Start(head);
  }
  if (head.result == ENOENT) {
    std::erase_if(changes, [](const RadosChange& change) { return change.only_existing; });
    details::TakeBack(pool_, changes);
    return ENOENT;
  }
  const int error = head.result == ECANCELED ? 0 : head.result;
  return error != 0 ? error : details::FirstError(changes, 0);
}

int CRadosChunks::Read(const StoredName& name, std::uint64_t offset, std::uint32_t size, ReadBuffer& buffer,
                       std::uint64_t& whole_size) {
  if (!Allocate(buffer, size)) {
    return ENOMEM;
  }
  const std::uint64_t within =
      std::min<std::uint64_t>(size, details::kMostBytes - std::min(offset, details::kMostBytes));
  const std::vector<details::Piece> pieces = details::Cut(offset, within);
  const bool has_head = !pieces.empty() && pieces.front().chunk == 0;
  std::vector<RadosLook> looks(pieces.size() + (has_head ? 0 : 1));
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    looks[i].object = ChunkName(name, pieces[i].chunk);
    looks[i].data = buffer.data.get() + pieces[i].position;
    looks[i].size = pieces[i].size;
    looks[i].offset = pieces[i].offset;
  }
  RadosLook& head = has_head ? looks.front() : looks.back();
  head.object = ChunkName(name, 0);
  {
    CRadosBatch batch(pool_);
    for (RadosLook& look : looks) {
      batch.Start(look);
    }
  }
  if (head.result != 0) {
    return head.result;
  }
  whole_size = head.has_whole_size ? head.whole_size : head.own_size;
  const std::uint64_t count = std::min<std::uint64_t>(size, whole_size - std::min(offset, whole_size));
  bool has_gap = false;
  for (std::size_t i = 0; i < pieces.size(); ++i) {
    const RadosLook& look = looks[i];
    if (look.result != 0 && look.result != ENOENT) {
      return look.result;
    }
    const std::size_t wanted =
        std::min<std::size_t>(look.size, count - std::min<std::uint64_t>(count, pieces[i].position));
    if (look.done < wanted) {
      std::memset(look.data + look.done, 0, wanted - look.done);
      has_gap = true;
    }
  }
  buffer.size = static_cast<std::uint32_t>(count);
  // A chunk may be missing because it was never written, or because all of them are just being removed. A removal takes
  // the head first.
  std::uint64_t size_now = 0;
  return has_gap ? GetSize(name, size_now) : 0;
}

int CRadosChunks::GetSize(const StoredName& name, std::uint64_t& size) {
  RadosLook head;
  head.object = ChunkName(name, 0);
  {
    CRadosBatch batch(pool_);
    batch.Start(head);
  }
  size = head.has_whole_size ? head.whole_size : head.own_size;
  return head.result;
}

int CRadosChunks::Remove(const StoredName& name, std::uint32_t count) {
  RadosChange head;
  head.object = ChunkName(name, 0);
  head.removes = true;
  {
    CRadosBatch batch(pool_);
    batch.Start(head);
  }
  if (head.result != 0 && head.result != ENOENT) {
    return head.result;
  }
  std::vector<RadosChange> others(count - 1);
  for (std::uint32_t i = 1; i < count; ++i) {
    others[i - 1].object = ChunkName(name, i);
    others[i - 1].removes = true;
  }
  details::RunAll(pool_, others);
  return details::FirstError(others, ENOENT);
}

}  // namespace Tansy::Host
