#include "BackupWriter.h"

#include <cerrno>
#include <utility>

#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kPiece = std::size_t{1} << 20;

}  // namespace
}  // namespace details

int ForEachPiece(HostSystem::IFile& file, const std::function<void(std::string_view bytes)>& visitor) {
  std::string piece(details::kPiece, ' ');
  std::uint64_t offset = 0;
  std::size_t done = piece.size();
  while (done == piece.size()) {
    if (const int error = file.ReadAt(piece.data(), piece.size(), offset, done)) {
      return error;
    }
    visitor({piece.data(), done});
    offset += done;
  }
  return 0;
}

BackupFile CBackupWriter::Write(const std::string& path, const Source& source) {
  MakeFoldersTo(path);
  std::unique_ptr<HostSystem::IFile> file;
  if (const int error = folder_->Create(path, file)) {
    Fail(path, "cannot be made", error);
  }
  BackupFile written{path, 0, {}};
  CFileDigest digest;
  std::string_view bytes;
  while (source(bytes)) {
    if (const int error = file->WriteAt(bytes.data(), bytes.size(), written.size)) {
      Fail(path, "cannot be written", error);
    }
    file->StartWriteOut(written.size, bytes.size());
    digest.Add(bytes);
    written.size += bytes.size();
  }
  if (const int error = file->Sync()) {
    Fail(path, "cannot be written", error);
  }
  written.digest = digest.End();
  return written;
}

BackupFile CBackupWriter::WriteText(const std::string& path, const std::string& text) {
  bool is_given = false;
  return Write(path, [&](std::string_view& bytes) {
    bytes = text;
    return !std::exchange(is_given, true);
  });
}

BackupFile CBackupWriter::Adopt(const std::string& path) {
  std::unique_ptr<HostSystem::IFile> file;
  BackupFile adopted{path, 0, {}};
  CFileDigest digest;
  int error = folder_->OpenForWriting(path, file);
  if (error == 0) {
    error = file->Sync();
  }
  if (error == 0) {
    error = ForEachPiece(*file, [&](std::string_view bytes) {
      digest.Add(bytes);
      adopted.size += bytes.size();
    });
  }
  if (error != 0) {
    Fail(path, "cannot be read", error);
  }
  adopted.digest = digest.End();
  return adopted;
}

void CBackupWriter::MakeFoldersTo(const std::string& path) {
  const std::lock_guard lock(mutex_);
  for (std::size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string folder = path.substr(0, slash);
    if (made_.contains(folder)) {
      continue;
    }
    const int error = folder_->MakeFolder(folder);
    if (error != 0 && error != EEXIST) {
      Fail(folder, "cannot be made", error);
    }
    made_.insert(folder);
  }
}

void CBackupWriter::Remove(const std::string& path) {
  const int error = folder_->Remove(path);
  if (error != 0 && error != ENOENT) {
    Fail(path, "cannot be removed", error);
  }
}

void CBackupWriter::SyncFolders() {
  const std::lock_guard lock(mutex_);
  for (const std::string& path : made_) {
    std::unique_ptr<HostSystem::IFolder> folder;
    int error = folder_->OpenFolder(path, folder);
    if (error == 0) {
      error = folder->Sync();
    }
    if (error != 0) {
      Fail(path, "cannot be written", error);
    }
  }
  if (const int error = folder_->Sync()) {
    Fail("", "cannot be written", error);
  }
}

void CBackupWriter::Fail(const std::string& path, const char* what, int error) const {
  throw CStartFailure(kExitFailed, HostSystem::IsNoSpace(error)
                                       ? "the disk of " + place_ + " is full"
                                       : place_ + "/" + path + " " + what + ": " + HostSystem::ErrorText(error));
}

}  // namespace Tansy::Host
