#include "Body.h"

#include <algorithm>
#include <cstring>
#include <sstream>

namespace prove {
namespace {

// The finaliser of SplitMix64: every bit of the number changes half of the result's bits.
std::uint64_t Mix(std::uint64_t number) {
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

Version MarkerAt(const Recipe& recipe, std::uint64_t offset) {
  if (recipe.part_size == 0) {
    return recipe.version;
  }
  const std::size_t part = std::min<std::size_t>(offset / recipe.part_size, recipe.sendings.size() - 1);
  return recipe.version | recipe.sendings[part];
}

void WriteRecord(char* place, Version marker, std::uint64_t offset) {
  const std::uint64_t check = Mix(marker * 31 + offset);
  std::memcpy(place, &marker, sizeof marker);
  std::memcpy(place + sizeof marker, &check, sizeof check);
}

std::uint64_t FirstRecordFrom(std::uint64_t offset) {
  return (offset + kRecordBytes - 1) / kRecordBytes * kRecordBytes;
}

// What stands at a place where other bytes were expected.
std::string DescribeOther(std::string_view bytes, std::uint64_t begin, std::uint64_t place) {
  const std::uint64_t record = place / kRecordBytes * kRecordBytes;
  std::ostringstream text;
  if (record < begin || record - begin + kRecordBytes > bytes.size()) {
    return "bytes that cannot be told";
  }
  Version marker = 0;
  std::memcpy(&marker, bytes.data() + (record - begin), sizeof marker);
  char expected[kRecordBytes];
  WriteRecord(expected, marker, record);
  if (bytes.substr(record - begin, kRecordBytes) != std::string_view(expected, kRecordBytes)) {
    return "bytes of no version";
  }
  text << "bytes of version " << std::hex << (marker & ~kSendingMask) << ", sending " << std::dec
       << (marker & kSendingMask);
  return text.str();
}

}  // namespace

std::string MakeBody(const Recipe& recipe, std::uint64_t begin, std::uint64_t size) {
  const std::uint64_t first = begin / kRecordBytes * kRecordBytes;
  const std::uint64_t end = FirstRecordFrom(begin + size);
  std::string bytes(end - first, '\0');
  for (std::uint64_t offset = first; offset < end; offset += kRecordBytes) {
    WriteRecord(bytes.data() + (offset - first), MarkerAt(recipe, offset), offset);
  }
  bytes.erase(0, begin - first);
  bytes.resize(size);
  return bytes;
}

std::string MakeBody(const Recipe& recipe) {
  return MakeBody(recipe, 0, recipe.size);
}

void CRecipes::Add(const Recipe& recipe) {
  const std::lock_guard lock(mutex_);
  recipes_[recipe.version] = recipe;
}

std::optional<Recipe> CRecipes::Find(Version version) const {
  const std::lock_guard lock(mutex_);
  const auto found = recipes_.find(version);
  return found == recipes_.end() ? std::nullopt : std::optional(found->second);
}

Recognised Recognise(const CRecipes& recipes, std::string_view bytes, std::uint64_t begin) {
  Recognised result;
  const std::uint64_t record = FirstRecordFrom(begin) - begin;
  if (record + kRecordBytes > bytes.size()) {
    result.fault = "only " + std::to_string(bytes.size()) + " bytes came";
    return result;
  }
  Version marker = 0;
  std::memcpy(&marker, bytes.data() + record, sizeof marker);
  const std::optional<Recipe> recipe = recipes.Find(marker & ~kSendingMask);
  if (!recipe) {
    result.fault = "begins with " + DescribeOther(bytes, begin, begin + record) + ", which nobody has sent";
    return result;
  }
  result.version = recipe->version;
  result.size = recipe->size;
  const std::string expected = MakeBody(*recipe, begin, bytes.size());
  const auto place = std::mismatch(bytes.begin(), bytes.end(), expected.begin()).first - bytes.begin();
  if (static_cast<std::size_t>(place) < bytes.size()) {
    const std::uint64_t offset = begin + static_cast<std::uint64_t>(place);
    std::ostringstream text;
    text << "version " << std::hex << recipe->version << std::dec << " has at " << offset << " "
         << DescribeOther(bytes, begin, offset);
    result.fault = text.str();
  }
  return result;
}

}  // namespace prove
