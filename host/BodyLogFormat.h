// How small bodies lie in the files of the body log, and how they are called.
//
// The log is a folder of segments, files "00000001.log" and so on. All numbers in them are little-endian. A segment is
//
//   head    8 "TANSYLOG", 4 version (1), 4 number of the segment, 8 nonce (random), 4 zero, 4 CRC-32C of the above,
//           4 key below which all bodies are settled, 12 zero
//   record  4 "BODY", 4 CRC-32C of the nonce and the next three fields, 4 key, 4 size of the body, 4 CRC-32C of nonce,
//           key (as 8 bytes) and body, 4 zero, 4 state (0, or "DEAD" once the body was removed), 4 zero, body
//   ...     every record begins at a multiple of 16; between records there may be anything
//   index   16 per record: key, offset, size and CRC as above; then 1 per record: its state;
//           then 8 "BODYINDX", 4 number, 4 count of records, 8 nonce, 4 offset of the index, 4 zero, 4 CRC-32C of the
//           16 per record and of the last 32 bytes, 4 zero
//
// The index is written when nothing more is added to the segment. Without it, or when it is damaged, the segment is
// searched for records. What changes is written in place: a state in the index when there is one and in the record
// otherwise, and the key in the head until there is an index.
//
// The key of a record is the offset at which it was first written. It stays when the segment is written anew without
// its removed bodies. Segment, key and nonce are the id in the body's name, so a name finds its record without any
// table of names, and a name of another segment of the same number finds nothing.
#ifndef TANSY_HOST_BODY_LOG_FORMAT_H
#define TANSY_HOST_BODY_LOG_FORMAT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "StoredName.h"
#include "Volumes.h"

namespace Tansy::Host {

inline constexpr const char* kBodyLogVolume = kSmallBodies;
inline constexpr std::uint32_t kLongestSmallBody = 64 * 1024;

struct BodyId {
  std::uint32_t segment = 0;
  std::uint32_t key = 0;
  std::uint64_t nonce = 0;
};
StoredName NameOf(const BodyId& id);
// Returns false for names that the log never gives.
bool ParseBodyId(const StoredName& name, BodyId& id);

// "00000001.log"
std::string SegmentFileName(std::uint32_t number);
// Returns false for other files.
bool ParseSegmentFileName(std::string_view name, std::uint32_t& number);

// What the log remembers of a record: 16 bytes in memory and in the index.
struct BodyEntry {
  std::uint32_t key = 0;
  std::uint32_t offset = 0;  // of the body
  std::uint32_t size : 31 = 0;
  std::uint32_t is_dead : 1 = 0;
  std::uint32_t crc = 0;
};
static_assert(sizeof(BodyEntry) == 16);

namespace BodyFormat {

inline constexpr std::uint32_t kSegmentHeadBytes = 48;
inline constexpr std::uint32_t kSettledAt = 32;
inline constexpr std::uint32_t kRecordHeadBytes = 32;
inline constexpr std::uint32_t kAlignment = 16;
inline constexpr std::uint32_t kRecordStateAt = 24;  // within the record's head
inline constexpr std::uint32_t kIndexEntryBytes = 16;
inline constexpr std::uint32_t kIndexEndBytes = 40;
inline constexpr std::string_view kDeadRecord = "DEAD";

// States of records in the index. Every other value counts as kLive, because bytes are never given up by mistake.
inline constexpr char kLive = 'L';
inline constexpr char kUnsettled = 'N';  // a row that names the body had not been seen yet
inline constexpr char kDead = 'D';

struct SegmentHead {
  std::uint32_t number = 0;
  std::uint64_t nonce = 0;
  std::uint32_t settled_below = 0;  // key
};

// Gives the number of bytes that a record takes.
std::uint32_t RecordSpan(std::uint32_t body_size);
std::uint32_t AlignUp(std::uint32_t offset);

std::string EncodeSegmentHead(const SegmentHead& head);
bool DecodeSegmentHead(std::string_view bytes, SegmentHead& head);
std::string EncodeNumber(std::uint32_t number);

std::uint32_t BodyCrc(std::uint64_t nonce, std::uint32_t key, std::string_view body);
// Appends a whole record with its padding; `crc` is the body's checksum.
void AppendRecord(std::string& bytes, std::uint64_t nonce, std::uint32_t key, std::string_view body, std::uint32_t crc);
// Reads a record's head; `entry.offset` is left alone. Returns false when there is none.
bool DecodeRecordHead(std::string_view bytes, std::uint64_t nonce, BodyEntry& entry);

// The end of an index says where it begins.
struct IndexEnd {
  SegmentHead head;
  std::uint32_t count = 0;
  std::uint32_t offset = 0;
};
std::uint64_t IndexBytes(std::uint32_t count);
// `states` has one character per entry.
std::string EncodeIndex(const SegmentHead& head, std::uint32_t offset, const std::vector<BodyEntry>& entries,
                        std::string_view states);
// Reads the last kIndexEndBytes of a file of this size.
bool DecodeIndexEnd(std::string_view bytes, std::uint64_t file_size, IndexEnd& end);
// Reads a whole index. Returns false when its checksum is wrong or its entries cannot be true.
bool DecodeIndex(std::string_view bytes, const IndexEnd& end, std::vector<BodyEntry>& entries, std::string& states);

}  // namespace BodyFormat
}  // namespace Tansy::Host

#endif  // TANSY_HOST_BODY_LOG_FORMAT_H
