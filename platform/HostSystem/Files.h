// Files and folders for programs that are responsible for what they store. Every name is looked up below a folder that
// is held open, and links are never followed on the way. The caller decides when bytes and names must be on stable
// storage.
//
// Names are relative, "/" between the folders, without "." and ".." (refused as invalid). Results are 0 or an errno
// value, on every system. Threads: any number may use one folder, and any number may read one file, sync it, and write
// to different ranges of it at once. Only std::bad_alloc is thrown.
#ifndef TANSY_HOST_SYSTEM_FILES_H
#define TANSY_HOST_SYSTEM_FILES_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace HostSystem {

// An open file, which the destructor closes.
class IFile {
 public:
  virtual ~IFile() = default;
  // Writes everything or fails.
  virtual int WriteAt(const char* data, std::size_t size, std::uint64_t offset) = 0;
  // Reads up to `size` bytes; `done` is less than `size` only at the end of the file.
  virtual int ReadAt(char* data, std::size_t size, std::uint64_t offset, std::size_t& done) = 0;
  virtual int GetSize(std::uint64_t& size) = 0;
  // Asks the system to begin writing this range to the disk while the caller goes on. It is a hint and promises
  // nothing.
  virtual void StartWriteOut(std::uint64_t offset, std::uint64_t size) = 0;
  // Gives the room of this range back to the file system, where it can do that; the bytes then read as zeros, and the
  // file's size stays. It is a hint and promises nothing.
  virtual void FreeRange(std::uint64_t /*offset*/, std::uint64_t /*size*/) {}
  // Returns when bytes and size are on stable storage. The file's name is not: see IFolder::Sync.
  virtual int Sync() = 0;
};

struct FolderEntry {
  std::string name;
  bool is_folder = false;
  bool is_file = false;  // false for links and devices too
  std::uint64_t size = 0;
  std::int64_t modified = 0;  // seconds since 1970
  int error = 0;              // when it is not 0, only the name is known, for this reason
};

// A folder that is held open: it stays the same folder wherever its path leads later.
class IFolder {
 public:
  virtual ~IFolder() = default;
  // Makes a file that must not exist, readable and writable for its owner only, unless the folder was opened for
  // others too.
  virtual int Create(const std::string& name, std::unique_ptr<IFile>& file) = 0;
  virtual int OpenForReading(const std::string& name, std::unique_ptr<IFile>& file) = 0;
  virtual int OpenForWriting(const std::string& name, std::unique_ptr<IFile>& file) = 0;
  virtual int OpenFolder(const std::string& name, std::unique_ptr<IFolder>& folder) = 0;
  virtual int MakeFolder(const std::string& name) = 0;
  // Replaces `to` when it exists, in one step.
  virtual int Rename(const std::string& from, const std::string& to) = 0;
  // Gives a file a second name, which must not exist; both may lie in folders below. EOPNOTSUPP and the like: the file
  // system cannot do that.
  virtual int Link(const std::string& /*from*/, const std::string& /*to*/) { return EOPNOTSUPP; }
  virtual int Remove(const std::string& name) = 0;
  virtual int RemoveFolder(const std::string& name) = 0;  // the folder must be empty
  // Gives the entries without "." and "..", in no order.
  virtual int List(std::vector<FolderEntry>& entries) = 0;
  // Tells how many bytes the file system of this folder has, and how many of them this process may still fill.
  virtual int GetRoom(std::uint64_t& total, std::uint64_t& available) = 0;
  // Returns when the names made, renamed and removed in this folder are on stable storage.
  virtual int Sync() = 0;
};

// Who may use the files and folders that are made below a folder: their owner only, or whoever the user lets use new
// files (the mask of the process).
enum class EAccess { kOwnerOnly, kUsual };

// Opens an existing folder by its path, which may lead through links. Returns null and sets `error` on failure.
std::unique_ptr<IFolder> OpenFolder(const std::string& path, int& error, EAccess access = EAccess::kOwnerOnly);

// Opens an existing file by its path, which may lead through links. The folder that holds it need not be readable.
int OpenFileForReading(const std::string& path, std::unique_ptr<IFile>& file);

// Makes a folder and those above it that are missing, for the owner only, and syncs the parents of the folders it made.
int MakeFolders(const std::string& path);

// Reads exactly these bytes; EIO when the file ends before.
int ReadExactly(IFile& file, std::uint64_t offset, std::size_t size, std::string& bytes);

// Reads a whole small file; one with more than `limit` bytes gives EFBIG.
int ReadWholeFile(const std::string& path, std::size_t limit, std::string& content);
// Puts a whole file in the place of another in one step: it writes a temporary file beside it, syncs, renames and
// syncs. The file is readable and writable for the owner only. A link at `path` is followed: the file behind it is
// replaced.
int ReplaceFile(const std::string& path, const std::string& content);

// Says whether a path exists and what it is.
enum class EPathKind { kMissing, kFile, kFolder, kOther };
EPathKind GetPathKind(const std::string& path);
// Returns true when others than the owner may read the file. On systems without such permissions it returns false.
bool IsReadableByOthers(const std::string& path);

// Returns true when the path belongs to another user than the one whom this process works for. On systems without such
// owners it returns false.
bool IsOwnedByAnother(const std::string& path);

// Makes `path` absolute with the current folder.
std::string AbsolutePath(const std::string& path);
int ChangeFolder(const std::string& path);

// Describes an errno value: "No such file or directory" for ENOENT.
std::string ErrorText(int error);
// Returns true for results that mean a full disk or a used-up quota.
bool IsNoSpace(int error);

namespace details {

// The steps of ReadWholeFile and ReplaceFile that differ from system to system.

struct FilePlace {
  std::string folder;
  std::string name;
};
// Finds the file behind a path that may be a link, or the path itself when nothing is there yet.
FilePlace FindPlace(const std::string& path);

}  // namespace details
}  // namespace HostSystem

#endif  // TANSY_HOST_SYSTEM_FILES_H
