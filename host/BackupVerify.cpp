#include "BackupVerify.h"

#include <memory>
#include <mutex>
#include <ostream>
#include <vector>

#include "BackupBytes.h"
#include "BackupFolder.h"
#include "BackupWriter.h"
#include "CatalogueFile.h"
#include "DatabaseUrl.h"
#include "FileStore.h"
#include "HostSystem/Files.h"
#include "PrintableText.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

// "" for a file that is what the manifest says.
std::string WhatIsWrong(HostSystem::IFolder& data, const BackupFile& expected) {
  std::unique_ptr<HostSystem::IFile> file;
  CFileDigest digest;
  std::uint64_t size = 0;
  int error = data.OpenForReading(expected.path, file);
  if (error == 0) {
    error = ForEachPiece(*file, [&](std::string_view bytes) {
      digest.Add(bytes);
      size += bytes.size();
    });
  }
  if (error != 0) {
    return HostSystem::ErrorText(error);
  }
  if (size != expected.size) {
    return "has " + std::to_string(size) + " bytes instead of " + std::to_string(expected.size);
  }
  return digest.End() == expected.digest ? "" : "has other bytes than were written";
}

std::size_t CompareFiles(const std::string& backup, const BackupManifest& manifest, std::ostream& out) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> data = HostSystem::OpenFolder(backup + "/" + kBackupData, error);
  if (data == nullptr) {
    throw CStartFailure(kExitFailed, "backup " + backup + " cannot be read: " + HostSystem::ErrorText(error));
  }
  std::mutex mutex;
  std::size_t wrong = 0;
  InParallel(manifest.files.size(), [&](std::size_t i) {
    const std::string what = WhatIsWrong(*data, manifest.files[i]);
    if (!what.empty()) {
      const std::lock_guard lock(mutex);
      out << "damaged " << Printable(manifest.files[i].path) << ": " << what << '\n';
      ++wrong;
    }
  });
  return wrong;
}

std::size_t LookAtRows(const std::string& backup, std::ostream& out) {
  const std::string data = backup + "/" + kBackupData;
  const std::unique_ptr<IObjectStore> store = OpenFileStore(data + "/objects", false, EStoreUse::kLook);
  std::size_t wrong = 0;
  CCatalogueFile(SqliteParam(data + "/catalogue.db")).VisitRows([&](const CatalogueRow& row) {
    StoredName name;
    std::uint64_t size = 0;
    const bool is_there = ParseOwnText(row.url, name) && store->GetSize(name, size) == EStoreResult::kDone;
    if (!is_there || size < row.size) {
      out << (is_there ? "short" : "missing") << " /" << Printable(row.bucket) << '/' << Printable(row.object) << ' '
          << Printable(row.url) << '\n';
      ++wrong;
    }
  });
  return wrong;
}

}  // namespace
}  // namespace details

int VerifyBackup(const std::string& path, std::ostream& out) {
  BackupManifest manifest;
  const std::string backup = FindBackup(path, manifest);
  std::size_t wrong = details::CompareFiles(backup, manifest, out);
  if (wrong == 0) {
    wrong = details::LookAtRows(backup, out);
  }
  out << "backup: " << backup << ": " << manifest.files.size() << " files compared, " << wrong << " findings\n";
  return wrong == 0 ? kExitDone : kExitFindings;
}

}  // namespace Tansy::Host
