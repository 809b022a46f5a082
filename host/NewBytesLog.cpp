#include "NewBytesLog.h"

#include <cerrno>
#include <charconv>
#include <functional>
#include <iterator>
#include <string_view>
#include <utility>

#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::string_view kPagePrefix = "new.";
constexpr std::size_t kReadAtOnce = std::size_t{1024} * 1024;

std::string PageName(std::uint64_t number) {
  return std::string(kPagePrefix) + std::to_string(number);
}

// Returns 0 for files with other names.
std::uint64_t PageNumber(const std::string& name) {
  std::uint64_t number = 0;
  if (name.size() > kPagePrefix.size() && name.compare(0, kPagePrefix.size(), kPagePrefix) == 0) {
    std::from_chars(name.data() + kPagePrefix.size(), name.data() + name.size(), number);
  }
  return PageName(number) == name ? number : 0;
}

int ReadPage(HostSystem::IFolder& root, const std::string& page, std::string& text) {
  std::unique_ptr<HostSystem::IFile> file;
  int error = root.OpenForReading(page, file);
  for (std::size_t done = 1; error == 0 && done > 0;) {
    const std::size_t begin = text.size();
    text.resize(begin + kReadAtOnce);
    error = file->ReadAt(text.data() + begin, kReadAtOnce, begin, done);
    text.resize(begin + done);
  }
  return error;
}

// Shows every name with the page that it stands on. A line that a crash has cut short names nothing.
int ForEachNote(HostSystem::IFolder& root, const std::function<void(std::uint64_t page, const StoredName*)>& visitor) {
  std::vector<HostSystem::FolderEntry> entries;
  int error = root.List(entries);
  for (const HostSystem::FolderEntry& entry : entries) {
    const std::uint64_t page = PageNumber(entry.name);
    if (!entry.is_file || page == 0) {
      continue;
    }
    std::string text;
    const int read_error = ReadPage(root, entry.name, text);
    if (read_error != 0 && read_error != ENOENT) {  // a running server may have removed it
      error = read_error;
    }
    visitor(page, nullptr);
    std::string_view rest = text;
    for (std::size_t end = rest.find('\n'); end != std::string_view::npos; end = rest.find('\n')) {
      StoredName name;
      if (ParseLocationText(rest.substr(0, end), name)) {
        visitor(page, &name);
      }
      rest.remove_prefix(end + 1);
    }
  }
  return error;
}

}  // namespace
}  // namespace details

int CNewBytesLog::Load() {
  const std::lock_guard lock(mutex_);
  return details::ForEachNote(root_, [this](std::uint64_t page, const StoredName* name) {
    Page& target = pages_[page];
    if (name == nullptr) {
      return;
    }
    Note note;
    note.name = *name;
    note.page = page;
    note.failed = true;
    target.names += notes_.try_emplace(name->id, std::move(note)).second ? 1 : 0;
  });
}

int CNewBytesLog::Add(const StoredName& name) {
  const std::string line = LocationText(name) + "\n";
  const std::lock_guard lock(mutex_);
  if (file_ == nullptr) {
    if (const int error = OpenPage()) {
      return error;
    }
  }
  if (const int error = file_->WriteAt(line.data(), line.size(), file_size_)) {
    return error;
  }
  file_size_ += line.size();
  const auto page = std::prev(pages_.end());
  Note note;
  note.name = name;
  note.page = page->first;
  note.writes = 1;
  notes_.emplace(name.id, std::move(note));
  ++page->second.names;
  return 0;
}

int CNewBytesLog::OpenPage() {
  const std::uint64_t number = pages_.empty() ? 1 : pages_.rbegin()->first + 1;
  const auto page = pages_.try_emplace(number).first;  // first: there is never a file without its page
  const int error = root_.Create(details::PageName(number), file_);
  if (error != 0) {
    pages_.erase(page);
  }
  file_size_ = 0;
  return error;
}

void CNewBytesLog::BeginWrite(const StoredName& name) {
  const std::lock_guard lock(mutex_);
  if (const auto note = notes_.find(name.id); note != notes_.end()) {
    ++note->second.writes;
  }
}

void CNewBytesLog::EndWrite(const StoredName& name, bool done) {
  const std::lock_guard lock(mutex_);
  if (const auto note = notes_.find(name.id); note != notes_.end()) {
    --note->second.writes;
    note->second.last_write = TansyBase::TimeUtil::Uptime();
    note->second.failed = !done;
  }
}

void CNewBytesLog::Touch(const std::vector<StoredName>& names) {
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  const std::lock_guard lock(mutex_);
  for (const StoredName& name : names) {
    if (const auto note = notes_.find(name.id); note != notes_.end()) {
      note->second.last_write = now;
    }
  }
}

void CNewBytesLog::Forget(const StoredName& name) {
  const std::lock_guard lock(mutex_);
  if (const auto note = notes_.find(name.id); note != notes_.end()) {
    --pages_[note->second.page].names;
    notes_.erase(note);
  }
}

bool CNewBytesLog::Contains(const StoredName& name) const {
  const std::lock_guard lock(mutex_);
  return notes_.count(name.id) > 0;
}

std::vector<NewBytes> CNewBytesLog::GetUntouched(std::int64_t seconds) const {
  std::vector<NewBytes> untouched;
  const std::int64_t now = TansyBase::TimeUtil::Uptime();
  const std::lock_guard lock(mutex_);
  for (const auto& [id, note] : notes_) {
    if (note.writes == 0 && (note.failed || now - note.last_write >= seconds)) {
      untouched.push_back({note.name, now - note.last_write, note.failed});
    }
  }
  return untouched;
}

void CNewBytesLog::TurnPage() {
  std::unique_ptr<HostSystem::IFile> written;
  {
    const std::lock_guard lock(mutex_);
    if (file_ != nullptr && file_size_ > 0) {
      written = std::move(file_);  // the next note begins the next page
    }
    RemoveEmptyPages();
    if (pages_.empty() || pages_.rbegin()->second.names == 0) {
      written.reset();
    }
  }
  // What is still needed from the page may stay there for hours, so it is synced: from now on a power failure does not
  // lose it. This happens outside the lock, because uploads wait for that. A failure is no reason to stop: the next
  // start finds the notes all the same.
  if (written != nullptr && written->Sync() == 0) {
    root_.Sync();
  }
}

void CNewBytesLog::RemoveEmptyPages() {
  for (auto page = pages_.begin(); page != pages_.end();) {
    const bool is_current = file_ != nullptr && std::next(page) == pages_.end();
    if (page->second.names > 0 || is_current) {
      ++page;
    } else {
      const int error = root_.Remove(details::PageName(page->first));
      page = error == 0 || error == ENOENT ? pages_.erase(page) : std::next(page);
    }
  }
}

int CNewBytesLog::Read(HostSystem::IFolder& root, std::vector<StoredName>& names) {
  return details::ForEachNote(root, [&names](std::uint64_t /*page*/, const StoredName* name) {
    if (name != nullptr) {
      names.push_back(*name);
    }
  });
}

}  // namespace Tansy::Host
