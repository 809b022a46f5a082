#include "BackupManifest.h"

#include <algorithm>
#include <charconv>

#include "StoredName.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kHead = "tansy-backup 1";
constexpr std::string_view kEnd = "end";
constexpr std::size_t kDigestLength = 64;

std::string HexOf(const Digest& digest) {
  return HexText(digest.data(), digest.size());
}

bool ParseDigest(std::string_view text, Digest& digest) {
  if (!IsHex(text, kDigestLength)) {
    return false;
  }
  for (std::size_t i = 0; i < digest.size(); ++i) {
    std::from_chars(text.data() + 2 * i, text.data() + 2 * i + 2, digest[i], 16);
  }
  return true;
}

template <typename Number>
bool ParseNumber(std::string_view text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [position, error] = std::from_chars(text.data(), end, number);
  return error == std::errc{} && position == end;
}

// Takes the text up to the next blank, and the blank.
std::string_view TakeWord(std::string_view& line) {
  const std::size_t end = std::min(line.find(' '), line.size());
  const std::string_view word = line.substr(0, end);
  line.remove_prefix(std::min(end + 1, line.size()));
  return word;
}

// Only below the folder of data, whoever has written the manifest.
bool IsPathBelow(std::string_view path) {
  std::size_t begin = 0;
  while (begin <= path.size()) {
    const std::size_t end = std::min(path.find('/', begin), path.size());
    const std::string_view part = path.substr(begin, end - begin);
    if (part.empty() || part == "." || part == ".." || part.find('\\') != std::string_view::npos) {
      return false;
    }
    begin = end + 1;
  }
  return true;
}

bool TakeFile(std::string_view line, BackupManifest& manifest) {
  BackupFile file;
  if (!ParseDigest(TakeWord(line), file.digest) || !ParseNumber(TakeWord(line), file.size) || !IsPathBelow(line)) {
    return false;
  }
  file.path = line;
  const bool is_in_order = manifest.files.empty() || manifest.files.back().path < file.path;
  manifest.files.push_back(std::move(file));
  return is_in_order;
}

bool TakeLine(std::string_view line, BackupManifest& manifest) {
  const std::string_view word = TakeWord(line);
  if (word == "file") {
    return TakeFile(line, manifest);
  }
  if (word == "made") {
    manifest.made = line;
  } else if (word == "version") {
    manifest.version = line;
  } else if (word == "store") {
    manifest.store_id = line;
  } else if (word == "schema") {
    return ParseNumber(line, manifest.schema);
  } else if (word == "objects") {
    return ParseNumber(line, manifest.objects);
  } else {
    return word == "pictures" && ParseNumber(line, manifest.pictures);
  }
  return true;
}

// The last line vouches for all before it.
bool IsWhole(std::string_view lines, std::string_view last, std::size_t files) {
  std::size_t count = 0;
  Digest digest{};
  return TakeWord(last) == kEnd && ParseNumber(TakeWord(last), count) && count == files && ParseDigest(last, digest) &&
         digest == DigestOf(lines);
}

}  // namespace
}  // namespace details

std::string TextOf(const BackupManifest& manifest) {
  std::string text = std::string(details::kHead) + "\nmade " + manifest.made + "\nversion " + manifest.version +
                     "\nstore " + manifest.store_id + "\nschema " + std::to_string(manifest.schema) + "\nobjects " +
                     std::to_string(manifest.objects) + "\npictures " + std::to_string(manifest.pictures) + "\n";
  for (const BackupFile& file : manifest.files) {
    text += "file " + details::HexOf(file.digest) + " " + std::to_string(file.size) + " " + file.path + "\n";
  }
  const std::string digest = details::HexOf(DigestOf(text));
  return text + std::string(details::kEnd) + " " + std::to_string(manifest.files.size()) + " " + digest + "\n";
}

bool ParseManifest(std::string_view text, BackupManifest& manifest) {
  manifest = {};
  const std::string_view all = text;
  bool is_first = true;
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
      return false;
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    if (is_first ? line != details::kHead : !text.empty() && !details::TakeLine(line, manifest)) {
      return false;
    }
    is_first = false;
    if (text.empty()) {
      return details::IsWhole(all.substr(0, all.size() - line.size() - 1), line, manifest.files.size());
    }
  }
  return false;
}

const BackupFile* FindFile(const BackupManifest& manifest, const std::string& path) {
  const auto found =
      std::lower_bound(manifest.files.begin(), manifest.files.end(), path,
                       [](const BackupFile& file, const std::string& wanted) { return file.path < wanted; });
  return found == manifest.files.end() || found->path != path ? nullptr : &*found;
}

}  // namespace Tansy::Host
