#include "HostSystem/Files.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <new>
#include <system_error>

#include "PrivateFolder.h"
#include "WindowsError.h"

namespace HostSystem {
namespace details {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::size_t kLargestTransfer = 1 << 30;  // the system's calls have lengths of 32 bits

OVERLAPPED At(std::uint64_t offset) {
  OVERLAPPED position = {};
  position.Offset = static_cast<DWORD>(offset);
  position.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return position;
}

class CFile final : public IFile {
 public:
  explicit CFile(HANDLE handle) : handle_(handle) {}
  ~CFile() override { ::CloseHandle(handle_); }

  int WriteAt(const char* data, std::size_t size, std::uint64_t offset) override {
    while (size > 0) {
      OVERLAPPED position = At(offset);
      DWORD done = 0;
      if (!::WriteFile(handle_, data, static_cast<DWORD>(std::min(size, kLargestTransfer)), &done, &position)) {
        return LastErrno();
      }
      data += done;
      size -= done;
      offset += done;
    }
    return 0;
  }

  int ReadAt(char* data, std::size_t size, std::uint64_t offset, std::size_t& done) override {
    done = 0;
    while (done < size) {
      OVERLAPPED position = At(offset + done);
      DWORD got = 0;
      if (!::ReadFile(handle_, data + done, static_cast<DWORD>(std::min(size - done, kLargestTransfer)), &got,
                      &position)) {
        return ::GetLastError() == ERROR_HANDLE_EOF ? 0 : LastErrno();
      }
      if (got == 0) {
        break;
      }
      done += got;
    }
    return 0;
  }

  int GetSize(std::uint64_t& size) override {
    LARGE_INTEGER value = {};
    if (!::GetFileSizeEx(handle_, &value)) {
      return LastErrno();
    }
    size = static_cast<std::uint64_t>(value.QuadPart);
    return 0;
  }

  void StartWriteOut(std::uint64_t /*offset*/, std::uint64_t /*size*/) override {}
  int Sync() override { return ::FlushFileBuffers(handle_) ? 0 : LastErrno(); }

 private:
  HANDLE handle_;
};

// Says whether the system takes the name for a device: "nul", "Com1.txt".
bool IsDevice(const std::string& name) {
  std::string stem = name.substr(0, name.find('.'));
  stem.erase(stem.find_last_not_of(' ') + 1);
  std::transform(stem.begin(), stem.end(), stem.begin(),
                 [](char c) { return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c; });
  for (const char* device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"}) {
    if (stem == device) {
      return true;
    }
  }
  // The digits that are written above the line count too.
  const bool is_port = stem.starts_with("COM") || stem.starts_with("LPT");
  const std::string number = is_port ? stem.substr(3) : "";
  return (number.size() == 1 && number[0] >= '1' && number[0] <= '9') || number == "\xC2\xB9" || number == "\xC2\xB2" ||
         number == "\xC2\xB3";
}

// The system drops dots and blanks at the end of a name, so such a name would be that of another file.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name.back() != '.' && name.back() != ' ' &&
         name.find_first_of("/\\:*?\"<>|") == std::string::npos &&
         std::none_of(name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) < ' '; }) &&
         !IsDevice(name);
}

bool IsPlainPath(const std::string& name) {
  std::size_t begin = 0;
  while (true) {
    const std::size_t slash = name.find('/', begin);
    if (!IsPlainName(name.substr(begin, slash == std::string::npos ? slash : slash - begin))) {
      return false;
    }
    if (slash == std::string::npos) {
      return true;
    }
    begin = slash + 1;
  }
}

std::filesystem::path FromUtf8(const std::string& path) {
  return std::filesystem::path(std::u8string(path.begin(), path.end()));
}

std::string ToUtf8(const std::filesystem::path& path) {
  const std::u8string text = path.u8string();
  return {text.begin(), text.end()};
}

// Makes the object that closes the handle from here on. When there is no memory for it, the handle is closed at once.
template <typename Owner, typename... Arguments>
std::unique_ptr<Owner> Own(HANDLE handle, Arguments&&... arguments) {
  try {
    return std::make_unique<Owner>(handle, std::forward<Arguments>(arguments)...);
  } catch (const std::bad_alloc&) {
    ::CloseHandle(handle);
    throw;
  }
}

// Gives the calling thread's last failure, of a call that wanted a file: the system says of a folder only that access
// is denied.
int LastErrnoOfFile(const std::filesystem::path& path) {
  const int error = LastErrno();
  const DWORD attributes = error == EACCES ? ::GetFileAttributesW(path.c_str()) : INVALID_FILE_ATTRIBUTES;
  const bool is_folder = attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  return is_folder ? EISDIR : error;
}

// The handle keeps the folder from being renamed or removed. Names are joined to the path by which it was opened.
class CFolder final : public IFolder {
 public:
  CFolder(HANDLE handle, std::filesystem::path path) : handle_(handle), path_(std::move(path)) {}
  ~CFolder() override { ::CloseHandle(handle_); }

  int Create(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, GENERIC_READ | GENERIC_WRITE, CREATE_NEW, file);
  }
  int OpenForReading(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, GENERIC_READ, OPEN_EXISTING, file);
  }
  int OpenForWriting(const std::string& name, std::unique_ptr<IFile>& file) override {
    return OpenFile(name, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING, file);
  }

  int OpenFolder(const std::string& name, std::unique_ptr<IFolder>& folder) override {
    if (const int error = CheckWay(name)) {
      return error;
    }
    int error = 0;
    folder = HostSystem::OpenFolder(ToUtf8(path_ / FromUtf8(name)), error);
    return error;
  }

  int MakeFolder(const std::string& name) override {
    const int error = CheckWay(name);
    return error != 0 ? error : Result(::CreateDirectoryW((path_ / FromUtf8(name)).c_str(), nullptr));
  }
  int Rename(const std::string& from, const std::string& to) override {
    if (!IsPlainName(from) || !IsPlainName(to)) {
      return EINVAL;
    }
    const std::filesystem::path target = path_ / FromUtf8(to);
    return ::MoveFileExW((path_ / FromUtf8(from)).c_str(), target.c_str(),
                         MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
               ? 0
               : LastErrnoOfFile(target);
  }
  int Link(const std::string& from, const std::string& to) override {
    int error = CheckWay(from);
    if (error == 0) {
      error = CheckWay(to);
    }
    return error != 0
               ? error
               : Result(::CreateHardLinkW((path_ / FromUtf8(to)).c_str(), (path_ / FromUtf8(from)).c_str(), nullptr));
  }
  int Remove(const std::string& name) override {
    const int error = CheckWay(name);
    return error != 0 ? error : Result(::DeleteFileW((path_ / FromUtf8(name)).c_str()));
  }
  int RemoveFolder(const std::string& name) override {
    const int error = CheckWay(name);
    return error != 0 ? error : Result(::RemoveDirectoryW((path_ / FromUtf8(name)).c_str()));
  }

  int List(std::vector<FolderEntry>& entries) override {
    WIN32_FIND_DATAW data = {};
    const HANDLE search = ::FindFirstFileW((path_ / L"*").c_str(), &data);
    if (search == INVALID_HANDLE_VALUE) {
      return LastErrno();
    }
    const std::unique_ptr<void, decltype(&::FindClose)> owner(search, &::FindClose);
    do {
      const std::wstring name = data.cFileName;
      if (name != L"." && name != L"..") {
        entries.push_back(MakeEntry(ToUtf8(name), data));
      }
    } while (::FindNextFileW(search, &data));
    const DWORD error = ::GetLastError();
    return error == ERROR_NO_MORE_FILES ? 0 : ToErrno(error);
  }

  int GetRoom(std::uint64_t& total, std::uint64_t& available) override {
    ULARGE_INTEGER all = {};
    ULARGE_INTEGER mine = {};
    if (!::GetDiskFreeSpaceExW(path_.c_str(), &mine, &all, nullptr)) {
      return LastErrno();
    }
    total = all.QuadPart;
    available = mine.QuadPart;
    return 0;
  }

  // Nothing is to be done, because the file system's journal keeps names in order with the flushes of their files.
  int Sync() override { return 0; }

 private:
  static int Result(BOOL done) { return done ? 0 : LastErrno(); }

  static FolderEntry MakeEntry(std::string name, const WIN32_FIND_DATAW& data) {
    const bool is_link = (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    const bool is_folder = (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const std::uint64_t ticks =
        (std::uint64_t{data.ftLastWriteTime.dwHighDateTime} << 32) | data.ftLastWriteTime.dwLowDateTime;
    FolderEntry entry;
    entry.name = std::move(name);
    entry.is_folder = is_folder && !is_link;
    entry.is_file = !is_folder && !is_link;
    entry.size = (std::uint64_t{data.nFileSizeHigh} << 32) | data.nFileSizeLow;
    entry.modified = static_cast<std::int64_t>(ticks / 10000000) - 11644473600;  // the system counts from 1601
    return entry;
  }

  // Gives EINVAL for names that are not plain parts, ELOOP when a folder on the way is a link.
  int CheckWay(const std::string& name) const {
    if (!IsPlainPath(name)) {
      return EINVAL;
    }
    for (std::size_t slash = name.find('/'); slash != std::string::npos; slash = name.find('/', slash + 1)) {
      const DWORD attributes = ::GetFileAttributesW((path_ / FromUtf8(name.substr(0, slash))).c_str());
      if (attributes == INVALID_FILE_ATTRIBUTES) {
        return LastErrno();
      }
      if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        return ELOOP;
      }
    }
    return 0;
  }

  int OpenFile(const std::string& name, DWORD access, DWORD disposition, std::unique_ptr<IFile>& file) const {
    if (const int error = CheckWay(name)) {
      return error;
    }
    const std::filesystem::path path = path_ / FromUtf8(name);
    const HANDLE handle = ::CreateFileW(path.c_str(), access, kShareAll, nullptr, disposition,
                                        FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
      return LastErrnoOfFile(path);
    }
    BY_HANDLE_FILE_INFORMATION info = {};
    if (!::GetFileInformationByHandle(handle, &info) || (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
      ::CloseHandle(handle);
      return ELOOP;
    }
    file = Own<CFile>(handle);
    return 0;
  }

  HANDLE handle_;
  std::filesystem::path path_;
};

}  // namespace

FilePlace FindPlace(const std::string& path) {
  const std::filesystem::path given = FromUtf8(path);
  std::error_code error;
  std::filesystem::path target = std::filesystem::weakly_canonical(given, error);
  // A name without a folder stays one when there is no such file yet. Whoever opens the file learns what is wrong.
  target = std::filesystem::absolute(error ? given : target);
  return {ToUtf8(target.parent_path()), ToUtf8(target.filename())};
}

}  // namespace details

std::unique_ptr<IFolder> OpenFolder(const std::string& path, int& error, EAccess /*access*/) {
  if (path.empty()) {
    error = ENOENT;
    return nullptr;
  }
  const std::filesystem::path full = std::filesystem::absolute(details::FromUtf8(path));
  const HANDLE handle = ::CreateFileW(full.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    error = LastErrno();
    return nullptr;
  }
  BY_HANDLE_FILE_INFORMATION info = {};
  if (!::GetFileInformationByHandle(handle, &info) || (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
    ::CloseHandle(handle);
    error = ENOTDIR;
    return nullptr;
  }
  error = 0;
  return details::Own<details::CFolder>(handle, full);
}

int OpenFileForReading(const std::string& path, std::unique_ptr<IFile>& file) {
  const HANDLE handle = ::CreateFileW(details::FromUtf8(path).c_str(), GENERIC_READ, details::kShareAll, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return LastErrno();
  }
  file = details::Own<details::CFile>(handle);
  return 0;
}

int MakeFolders(const std::string& path) {
  const EPathKind kind = GetPathKind(path);
  if (kind != EPathKind::kMissing) {
    return kind == EPathKind::kFolder ? 0 : EEXIST;
  }
  const std::filesystem::path native = details::FromUtf8(path);
  // A name that ends with a separator is that of the folder before it.
  const std::filesystem::path above = native.parent_path();
  if (!above.empty() && above != native) {
    const int error = MakeFolders(details::ToUtf8(above));
    if (error != 0) {
      return error == EEXIST ? ENOTDIR : error;
    }
  }
  const int error = native.has_filename() ? MakePrivateFolder(native) : 0;
  return error == EEXIST && GetPathKind(path) == EPathKind::kFolder ? 0 : error;
}

EPathKind GetPathKind(const std::string& path) {
  std::error_code error;
  switch (std::filesystem::status(details::FromUtf8(path), error).type()) {
    case std::filesystem::file_type::not_found:
      return EPathKind::kMissing;
    case std::filesystem::file_type::regular:
      return EPathKind::kFile;
    case std::filesystem::file_type::directory:
      return EPathKind::kFolder;
    default:
      return EPathKind::kOther;
  }
}

bool IsReadableByOthers(const std::string& /*path*/) {
  return false;
}

bool IsOwnedByAnother(const std::string& /*path*/) {
  return false;
}

std::string AbsolutePath(const std::string& path) {
  const std::filesystem::path given = details::FromUtf8(path);
  return given.is_absolute() ? path : details::ToUtf8(std::filesystem::absolute(given));
}

int ChangeFolder(const std::string& path) {
  return ::SetCurrentDirectoryW(details::FromUtf8(path).c_str()) ? 0 : LastErrno();
}

bool IsNoSpace(int error) {
  return error == ENOSPC;
}

}  // namespace HostSystem
