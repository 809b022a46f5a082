#include "BodyLogFormat.h"

#include <bit>
#include <charconv>
#include <cstring>

#include "Crc32c.h"

namespace Tansy::Host {
namespace details {
namespace {

static_assert(std::endian::native == std::endian::little, "numbers are written as they lie in memory");

constexpr std::string_view kSegmentMark = "TANSYLOG";
constexpr std::string_view kRecordMark = "BODY";
constexpr std::string_view kIndexMark = "BODYINDX";
constexpr std::string_view kFileEnd = ".log";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kNumberDigits = 8;

template <typename Number>
void Put(std::string& bytes, Number number) {
  char raw[sizeof number];
  std::memcpy(raw, &number, sizeof number);
  bytes.append(raw, sizeof raw);
}

template <typename Number>
Number Get(std::string_view bytes, std::size_t at) {
  Number number = 0;
  std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

template <typename Number>
void PutBigEndian(Number number, unsigned char* bytes) {
  for (std::size_t i = 0; i < sizeof number; ++i) {
    bytes[i] = static_cast<unsigned char>(number >> (8 * (sizeof number - 1 - i)));
  }
}

template <typename Number>
bool ParseHex(std::string_view text, Number& number) {
  return IsHex(text, sizeof number * 2) &&
         std::from_chars(text.data(), text.data() + text.size(), number, 16).ptr == text.data() + text.size();
}

std::uint32_t CrcOf(std::uint64_t number, std::uint32_t before = 0) {
  char raw[sizeof number];
  std::memcpy(raw, &number, sizeof number);
  return Crc32c(raw, sizeof raw, before);
}

std::uint32_t CrcOf(std::string_view bytes, std::uint32_t before = 0) {
  return Crc32c(bytes.data(), bytes.size(), before);
}

}  // namespace
}  // namespace details

StoredName NameOf(const BodyId& id) {
  unsigned char bytes[16];
  details::PutBigEndian(id.segment, bytes);
  details::PutBigEndian(id.key, bytes + 4);
  details::PutBigEndian(id.nonce, bytes + 8);
  StoredName name{kBodyLogVolume, "", HexText(bytes, sizeof bytes)};
  name.folder = name.id.substr(4, 4);
  return name;
}

bool ParseBodyId(const StoredName& name, BodyId& id) {
  const std::string_view text = name.id;
  return name.volume == kBodyLogVolume && text.size() == 32 && details::ParseHex(text.substr(0, 8), id.segment) &&
         details::ParseHex(text.substr(8, 8), id.key) && details::ParseHex(text.substr(16), id.nonce) &&
         name.folder == text.substr(4, 4);
}

std::string SegmentFileName(std::uint32_t number) {
  unsigned char bytes[sizeof number];
  details::PutBigEndian(number, bytes);
  return HexText(bytes, sizeof bytes) + std::string(details::kFileEnd);
}

bool ParseSegmentFileName(std::string_view name, std::uint32_t& number) {
  return name.size() == details::kNumberDigits + details::kFileEnd.size() && name.ends_with(details::kFileEnd) &&
         details::ParseHex(name.substr(0, details::kNumberDigits), number);
}

namespace BodyFormat {

std::uint32_t AlignUp(std::uint32_t offset) {
  return (offset + kAlignment - 1) / kAlignment * kAlignment;
}

std::uint32_t RecordSpan(std::uint32_t body_size) {
  return AlignUp(kRecordHeadBytes + body_size);
}

std::string EncodeSegmentHead(const SegmentHead& head) {
  std::string bytes(details::kSegmentMark);
  details::Put(bytes, details::kVersion);
  details::Put(bytes, head.number);
  details::Put(bytes, head.nonce);
  details::Put(bytes, std::uint32_t{0});
  details::Put(bytes, details::CrcOf(bytes));
  details::Put(bytes, head.settled_below);
  bytes.resize(kSegmentHeadBytes, '\0');
  return bytes;
}

std::string EncodeNumber(std::uint32_t number) {
  std::string bytes;
  details::Put(bytes, number);
  return bytes;
}

bool DecodeSegmentHead(std::string_view bytes, SegmentHead& head) {
  if (bytes.size() < kSegmentHeadBytes || !bytes.starts_with(details::kSegmentMark) ||
      details::Get<std::uint32_t>(bytes, 8) != details::kVersion ||
      details::Get<std::uint32_t>(bytes, 28) != details::CrcOf(bytes.substr(0, 28))) {
    return false;
  }
  head.number = details::Get<std::uint32_t>(bytes, 12);
  head.nonce = details::Get<std::uint64_t>(bytes, 16);
  head.settled_below = details::Get<std::uint32_t>(bytes, kSettledAt);
  return true;
}

std::uint32_t BodyCrc(std::uint64_t nonce, std::uint32_t key, std::string_view body) {
  return details::CrcOf(body, details::CrcOf(key, details::CrcOf(nonce)));
}

void AppendRecord(std::string& bytes, std::uint64_t nonce, std::uint32_t key, std::string_view body,
                  std::uint32_t crc) {
  const auto size = static_cast<std::uint32_t>(body.size());
  std::string facts;
  details::Put(facts, key);
  details::Put(facts, size);
  details::Put(facts, crc);
  const std::size_t begin = bytes.size();
  bytes.reserve(begin + RecordSpan(size));
  bytes.append(details::kRecordMark);
  details::Put(bytes, details::CrcOf(facts, details::CrcOf(nonce)));
  bytes.append(facts);
  bytes.resize(begin + kRecordHeadBytes, '\0');
  bytes.append(body);
  bytes.resize(begin + RecordSpan(size), '\0');
}

bool DecodeRecordHead(std::string_view bytes, std::uint64_t nonce, BodyEntry& entry) {
  constexpr std::size_t kFactsAt = 8;
  constexpr std::size_t kFactsBytes = 12;
  if (bytes.size() < kRecordHeadBytes || !bytes.starts_with(details::kRecordMark) ||
      details::Get<std::uint32_t>(bytes, 4) !=
          details::CrcOf(bytes.substr(kFactsAt, kFactsBytes), details::CrcOf(nonce))) {
    return false;
  }
  const auto size = details::Get<std::uint32_t>(bytes, 12);
  entry.key = details::Get<std::uint32_t>(bytes, kFactsAt);
  entry.size = size & 0x7FFFFFFF;
  entry.crc = details::Get<std::uint32_t>(bytes, 16);
  entry.is_dead = bytes.substr(kRecordStateAt, kDeadRecord.size()) == kDeadRecord ? 1 : 0;
  return size <= kLongestSmallBody;
}

std::uint64_t IndexBytes(std::uint32_t count) {
  return std::uint64_t{count} * (kIndexEntryBytes + 1) + kIndexEndBytes;
}

std::string EncodeIndex(const SegmentHead& head, std::uint32_t offset, const std::vector<BodyEntry>& entries,
                        std::string_view states) {
  std::string bytes;
  bytes.reserve(IndexBytes(static_cast<std::uint32_t>(entries.size())));
  for (const BodyEntry& entry : entries) {
    details::Put(bytes, entry.key);
    details::Put(bytes, entry.offset);
    details::Put(bytes, std::uint32_t{entry.size});
    details::Put(bytes, entry.crc);
  }
  std::string end(details::kIndexMark);
  details::Put(end, head.number);
  details::Put(end, static_cast<std::uint32_t>(entries.size()));
  details::Put(end, head.nonce);
  details::Put(end, offset);
  details::Put(end, std::uint32_t{0});
  const std::uint32_t crc = details::CrcOf(end, details::CrcOf(bytes));
  bytes.append(states).append(end);
  details::Put(bytes, crc);
  details::Put(bytes, std::uint32_t{0});
  return bytes;
}

bool DecodeIndexEnd(std::string_view bytes, std::uint64_t file_size, IndexEnd& end) {
  if (bytes.size() != kIndexEndBytes || !bytes.starts_with(details::kIndexMark)) {
    return false;
  }
  end.head.number = details::Get<std::uint32_t>(bytes, 8);
  end.count = details::Get<std::uint32_t>(bytes, 12);
  end.head.nonce = details::Get<std::uint64_t>(bytes, 16);
  end.offset = details::Get<std::uint32_t>(bytes, 24);
  return end.offset + IndexBytes(end.count) == file_size;
}

bool DecodeIndex(std::string_view bytes, const IndexEnd& end, std::vector<BodyEntry>& entries, std::string& states) {
  const std::size_t entry_bytes = std::size_t{end.count} * kIndexEntryBytes;
  if (bytes.size() != IndexBytes(end.count)) {
    return false;
  }
  const std::string_view facts = bytes.substr(0, entry_bytes);
  const std::string_view last = bytes.substr(bytes.size() - kIndexEndBytes);
  if (details::Get<std::uint32_t>(last, 32) != details::CrcOf(last.substr(0, 32), details::CrcOf(facts))) {
    return false;
  }
  states = bytes.substr(entry_bytes, end.count);
  entries.clear();
  entries.reserve(end.count);
  for (std::uint32_t i = 0; i < end.count; ++i) {
    const std::string_view raw = facts.substr(std::size_t{i} * kIndexEntryBytes, kIndexEntryBytes);
    BodyEntry entry;
    entry.key = details::Get<std::uint32_t>(raw, 0);
    entry.offset = details::Get<std::uint32_t>(raw, 4);
    const auto size = details::Get<std::uint32_t>(raw, 8);
    entry.size = size & 0x7FFFFFFF;
    entry.crc = details::Get<std::uint32_t>(raw, 12);
    entry.is_dead = states[i] == kDead ? 1 : 0;
    const bool is_in_order = entries.empty() || entries.back().key < entry.key;
    if (!is_in_order || size > kLongestSmallBody || std::uint64_t{entry.offset} + size > end.offset) {
      return false;
    }
    entries.push_back(entry);
  }
  return true;
}

}  // namespace BodyFormat
}  // namespace Tansy::Host
