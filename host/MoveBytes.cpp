#include "MoveBytes.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "MoveFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kPicturesAtOnce = 256;
constexpr std::uint32_t kPiece = std::uint32_t{4} << 20;

}  // namespace
}  // namespace details

ECopy CMoveBytes::Copy(const StoredName& name) {
  std::uint64_t size = 0;
  std::uint64_t there = 0;
  if (const EStoreResult result = work_.From().GetSize(name, size); result != EStoreResult::kDone) {
    return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
  }
  const EStoreResult found = work_.To().GetSize(name, there);
  if (found == EStoreResult::kDone && there == size) {
    const ECopy result = Compare(name, size);
    if (result != ECopy::kDamaged) {
      return result;
    }
  }
  if (found == EStoreResult::kDone) {
    ExpectDone(work_.To().Remove(name));
  }
  const ECopy result = work_.To().IsPicture(name) ? CopyWhole(name) : CopyPieces(name, size);
  return result == ECopy::kSame ? CompareCopy(name, size) : result;
}

ECopy CMoveBytes::CompareCopy(const StoredName& name, std::uint64_t size) {
  const ECopy result = Compare(name, size);
  if (result == ECopy::kDamaged) {
    throw CMoveFailure(work_.target.Describe() + " gives other bytes than were written to it: " + LocationText(name));
  }
  return result;
}

void CMoveBytes::ExpectDone(EStoreResult result) const {
  if (result == EStoreResult::kNoSpace) {
    throw CMoveFailure(work_.target.DescribeStore() + " is full");
  }
  if (result != EStoreResult::kDone) {
    throw CMoveFailure(work_.target.DescribeStore() + " cannot be used, see the log");
  }
}

ECopy CMoveBytes::CopyWhole(const StoredName& name) {
  ReadBuffer bytes;
  const EStoreResult result = work_.From().ReadWhole(name, bytes);
  if (result != EStoreResult::kDone) {
    return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
  }
  ExpectDone(work_.To().SaveNamed(name, 0, bytes.data.get(), bytes.size));
  return ECopy::kSame;
}

ECopy CMoveBytes::CopyPieces(const StoredName& name, std::uint64_t size) {
  std::uint64_t offset = 0;
  do {
    ReadBuffer bytes;
    const EStoreResult result = work_.From().ReadRange(name, offset, details::kPiece, bytes);
    if (result != EStoreResult::kDone || (bytes.size == 0 && size > offset)) {
      return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
    }
    ExpectDone(work_.To().SaveNamed(name, offset, bytes.data.get(), bytes.size));
    offset += bytes.size;
  } while (offset < size);
  return ECopy::kSame;
}

// kDamaged: they differ.
ECopy CMoveBytes::Compare(const StoredName& name, std::uint64_t size) {
  std::uint64_t offset = 0;
  do {
    ReadBuffer bytes;
    ReadBuffer copy;
    const EStoreResult result = work_.From().ReadRange(name, offset, details::kPiece, bytes);
    if (result != EStoreResult::kDone) {
      return result == EStoreResult::kMissing ? ECopy::kGone : ECopy::kDamaged;
    }
    const EStoreResult read = work_.To().ReadRange(name, offset, details::kPiece, copy);
    if (read == EStoreResult::kMissing && work_.From().GetSize(name, size) == EStoreResult::kMissing) {
      return ECopy::kGone;  // a removal took it from both places
    }
    ExpectDone(read);
    const bool is_same = bytes.size == copy.size && (bytes.size > 0 || offset >= size) &&
                         (bytes.size == 0 || std::memcmp(bytes.data.get(), copy.data.get(), bytes.size) == 0);
    if (!is_same) {
      return ECopy::kDamaged;
    }
    offset += bytes.size;
    work_.NoteBytes(bytes.size);
  } while (offset < size);
  return ECopy::kSame;
}

bool CMoveBytes::IsSame(const StoredName& name, std::atomic<std::int64_t>& room) {
  std::uint64_t size = 0;
  std::uint64_t there = 0;
  return work_.From().GetSize(name, size) == EStoreResult::kDone && (room -= static_cast<std::int64_t>(size)) >= 0 &&
         work_.To().GetSize(name, there) == EStoreResult::kDone && there == size && Compare(name, size) == ECopy::kSame;
}

void CMoveBytes::CopyPictures(const std::vector<StoredName>& pictures) {
  work_.InParallel(pictures.size(), [&](std::size_t i) { Copy(pictures[i]); });
  work_.To().ForgetNew(pictures);
}

void CMoveBytes::CopyPictures(EPictures which) {
  if (!work_.target.MovesBytes()) {
    return;
  }
  std::vector<StoredName> batch;
  const auto copy_batch = [&] {
    CopyPictures(batch);
    batch.clear();
    work_.SayHowFar();
  };
  const auto look = [&](const StoredEntry& entry) {
    std::uint64_t size = 0;
    const bool is_there = which == EPictures::kNew && work_.To().GetSize(entry.name, size) == EStoreResult::kDone;
    if (!entry.is_temporary && !is_there) {
      batch.push_back(entry.name);
    }
    if (batch.size() == details::kPicturesAtOnce) {
      copy_batch();
    }
    return !work_.host.is_stopping();
  };
  if (!work_.From().ForEach(EContent::kPicture, look)) {
    throw CMoveFailure("the pictures cannot be listed, see the log");
  }
  work_.ExpectGoingOn();
  copy_batch();
}

}  // namespace Tansy::Host
