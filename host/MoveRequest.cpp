#include "MoveRequest.h"

#include <openssl/rand.h>

#include <chrono>
#include <cstdint>
#include <exception>
#include <memory>
#include <ostream>
#include <thread>
#include <vector>

#include "HostLog.h"
#include "HostSystem/Files.h"
#include "HostSystem/LockFile.h"
#include "MoveFailure.h"
#include "MoveNames.h"
#include "StartFailure.h"
#include "StoredName.h"
#include "TansyBase/FileUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr const char* kRequestFile = "move.request";
constexpr const char* kAnswerFile = "move.answer";
constexpr const char* kLockFile = "move.lock";
constexpr std::chrono::milliseconds kLookAgain{100};
constexpr std::size_t kMostRequest = std::size_t{1} << 16;
constexpr std::size_t kPiece = std::size_t{1} << 16;
constexpr const char* kEnded = "ended ";  // the last line of an answer, with the exit code

// The mark tells this answer from an answer to an earlier command.
std::string NewMark() {
  unsigned char bytes[16] = {};
  RAND_bytes(bytes, sizeof bytes);  // any number will do
  return HexText(bytes, sizeof bytes);
}

std::string TextOf(const MoveRequest& request, const std::string& mark) {
  return Packed({mark, request.work == EMoveWork::kCancel ? "cancel" : "move", request.order.database,
                 request.order.storage, request.order.dry_run ? "try" : "do", request.order.force ? "force" : "-"});
}

bool Parse(const std::string& text, MoveRequest& request, std::string& mark) {
  const std::vector<std::string> words = Unpacked(text);
  if (words.size() != 6) {
    return false;
  }
  mark = words[0];
  request.work = words[1] == "cancel" ? EMoveWork::kCancel : EMoveWork::kMove;
  request.order = {words[2], words[3], words[4] == "try", words[5] == "force"};
  return true;
}

int OpenAnswer(int (HostSystem::IFolder::*open)(const std::string& name, std::unique_ptr<HostSystem::IFile>& file),
               std::unique_ptr<HostSystem::IFile>& file) {
  int error = 0;
  const std::unique_ptr<HostSystem::IFolder> folder = HostSystem::OpenFolder(".", error);
  return folder == nullptr ? error : ((*folder).*open)(kAnswerFile, file);
}

// What the server says, in a file that grows while the command reads it.
class CAnswer {
 public:
  explicit CAnswer(const std::string& mark) : size_(mark.size() + 1) {
    int error = HostSystem::ReplaceFile(kAnswerFile, mark + "\n");
    if (error == 0) {
      error = OpenAnswer(&HostSystem::IFolder::OpenForWriting, file_);
    }
    Note(error);
  }

  void Say(const std::string& line) {
    if (file_ != nullptr) {
      const std::string text = line + "\n";
      Note(file_->WriteAt(text.data(), text.size(), size_));
      size_ += text.size();
    }
  }

 private:
  static void Note(int error) {
    if (error != 0) {
      HOST_LOG(logging::kError, "[%s]%s cannot be written: %s.[%s(%d)]", kAnswerFile,
               HostSystem::ErrorText(error).c_str());
    }
  }

  std::unique_ptr<HostSystem::IFile> file_;
  std::uint64_t size_;
};

// The lines of an answer, as they come. Answers to other commands have other marks.
class CAnswerReader {
 public:
  explicit CAnswerReader(const std::string& mark) : mark_(mark), offset_(mark.size() + 1) {}

  // Adds the lines that are whole and were not given before.
  void Read(std::vector<std::string>& lines) {
    std::unique_ptr<HostSystem::IFile> file;
    std::string head;
    if (OpenAnswer(&HostSystem::IFolder::OpenForReading, file) != 0 ||
        HostSystem::ReadExactly(*file, 0, mark_.size(), head) != 0 || head != mark_) {
      return;
    }
    std::string piece(kPiece, ' ');
    std::size_t done = 0;
    while (file->ReadAt(piece.data(), piece.size(), offset_, done) == 0 && done > 0) {
      rest_.append(piece, 0, done);
      offset_ += done;
    }
    for (std::size_t end = rest_.find('\n'); end != std::string::npos; end = rest_.find('\n')) {
      lines.push_back(rest_.substr(0, end));
      rest_.erase(0, end + 1);
    }
  }

 private:
  const std::string mark_;
  std::uint64_t offset_;
  std::string rest_;  // of a line that is not whole yet
};

}  // namespace
}  // namespace details

int DoMoveWork(const MoveRequest& request, MoveHost& host) {
  try {
    if (host.is_node) {
      throw CMoveFailure("other nodes would not follow; end all of them and start one tansyd without --node-name");
    }
    if (request.work == EMoveWork::kMove && !request.order.dry_run && !host.options.full_durability) {
      throw CMoveFailure(
          "with --durability fast a power cut could lose what was copied: start tansyd with --durability full");
    }
    if (request.work == EMoveWork::kCancel) {
      CancelMove(host.options, host.say);
    } else {
      RunMove(request.order, host);
    }
    return kExitDone;
  } catch (const std::exception& failure) {
    host.say(std::string("move: ") + failure.what());
    return kExitFailed;
  }
}

int AskForMove(const MoveRequest& request, const std::function<bool()>& is_running, std::ostream& out) {
  const auto fail = [](const std::string& what) { throw CStartFailure(kExitFailed, what); };
  HostSystem::CLockFile lock;
  if (const int error = lock.Take(details::kLockFile)) {
    fail(error == EBUSY ? "another tansyd move is at work here"
                        : std::string(details::kLockFile) + " cannot be written: " + HostSystem::ErrorText(error));
  }
  const std::string mark = details::NewMark();
  if (const int error = HostSystem::ReplaceFile(details::kRequestFile, details::TextOf(request, mark))) {
    fail(std::string(details::kRequestFile) + " cannot be written: " + HostSystem::ErrorText(error));
  }
  details::CAnswerReader answer(mark);
  for (;; std::this_thread::sleep_for(details::kLookAgain)) {
    const bool is_there = is_running();  // before the last look at what it has said
    std::vector<std::string> lines;
    answer.Read(lines);
    for (const std::string& line : lines) {
      if (line.starts_with(details::kEnded)) {
        TansyBase::FileUtil::RemoveFile(details::kAnswerFile);
        return std::stoi(line.substr(std::char_traits<char>::length(details::kEnded)));
      }
      out << line << std::endl;
    }
    if (!is_there) {
      TansyBase::FileUtil::RemoveFile(details::kRequestFile);
      fail("the running tansyd has ended; the same command goes on with the move");
    }
  }
}

void AnswerMoveRequest(const std::function<MoveHost()>& make_host, const std::function<bool()>& is_stopping) {
  if (HostSystem::GetPathKind(details::kRequestFile) == HostSystem::EPathKind::kMissing) {
    return;
  }
  std::string text;
  const int error = HostSystem::ReadWholeFile(details::kRequestFile, details::kMostRequest, text);
  TansyBase::FileUtil::RemoveFile(details::kRequestFile);
  MoveRequest request;
  std::string mark;
  if (error != 0 || !details::Parse(text, request, mark)) {
    return;
  }
  details::CAnswer answer(mark);
  MoveHost host = make_host();
  host.is_stopping = [&is_stopping] {
    return is_stopping() || !HostSystem::CLockFile::IsTakenByAnybody(details::kLockFile);
  };
  host.say = [&answer](const std::string& line) {
    HOST_LOG(logging::kNotable, "[%s]%s.[%s(%d)]", line.c_str());
    answer.Say(line);
  };
  answer.Say(details::kEnded + std::to_string(DoMoveWork(request, host)));
}

void ForgetMoveRequests() {
  TansyBase::FileUtil::RemoveFile(details::kRequestFile);
  TansyBase::FileUtil::RemoveFile(details::kAnswerFile);
}

}  // namespace Tansy::Host
