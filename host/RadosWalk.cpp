#include "RadosWalk.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "RadosChunks.h"
#include "Volumes.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::size_t kAtOnce = 256;

class CWalk {
 public:
  CWalk(CRadosPool& pool, EContent content, const std::function<bool(const StoredEntry&)>& visitor)
      : pool_(pool), content_(content), visitor_(visitor) {}

  int Run() {
    int error = pool_.List([this](std::string_view object) { return Note(object) && goes_on_; });
    error = error != 0 ? error : error_;
    if (error == 0 && goes_on_) {
      ShowHeads();
      ShowHeadless();
    }
    return error != 0 ? error : error_;
  }

 private:
  struct Other {
    StoredName name;
    std::uint32_t chunk = 0;
  };

  bool IsWanted(const std::string& volume) const {
    return content_ == EContent::kPicture ? IsPictureVolume(volume) : IsObjectVolume(volume);
  }

  bool Note(std::string_view object) {
    StoredName name;
    std::uint32_t chunk = 0;
    if (!ParseChunkName(object, name, chunk) || !IsWanted(name.volume)) {
      return true;
    }
    if (chunk > 0) {
      others_.push_back({std::move(name), chunk});
      return true;
    }
    heads_.push_back(std::move(name));
    return heads_.size() < kAtOnce || ShowHeads();
  }

  std::vector<RadosLook> LookAt(const std::vector<std::string>& objects) {
    std::vector<RadosLook> looks(objects.size());
    CRadosBatch batch(pool_);
    for (std::size_t i = 0; i < objects.size(); ++i) {
      looks[i].object = objects[i];
      batch.Start(looks[i]);
    }
    batch.Wait();
    for (const RadosLook& look : looks) {
      error_ = look.result != 0 && look.result != ENOENT ? look.result : error_;
    }
    return looks;
  }

  // Returns false when the walk is over.
  bool ShowHeads() {
    std::vector<std::string> objects;
    for (const StoredName& name : heads_) {
      objects.push_back(ChunkName(name, 0));
    }
    const std::vector<RadosLook> looks = LookAt(objects);
    for (std::size_t i = 0; i < looks.size() && goes_on_; ++i) {
      if (looks[i].result == 0) {  // else it was removed meanwhile
        Show(heads_[i], looks[i].has_whole_size ? looks[i].whole_size : looks[i].own_size, false);
      }
    }
    heads_.clear();
    return goes_on_ && error_ == 0;
  }

  void ShowHeadless() {
    std::sort(others_.begin(), others_.end(), [](const Other& a, const Other& b) {
      return std::tie(a.name.id, a.chunk) < std::tie(b.name.id, b.chunk);
    });
    const auto same_id = [](const Other& a, const Other& b) { return a.name.id == b.name.id; };
    others_.erase(std::unique(others_.begin(), others_.end(), same_id), others_.end());
    for (std::size_t begin = 0; begin < others_.size() && goes_on_ && error_ == 0; begin += kAtOnce) {
      const std::size_t count = std::min(others_.size() - begin, kAtOnce);
      std::vector<std::string> objects;
      for (std::size_t i = begin; i < begin + count; ++i) {
        objects.push_back(ChunkName(others_[i].name, 0));
        objects.push_back(ChunkName(others_[i].name, others_[i].chunk));
      }
      const std::vector<RadosLook> looks = LookAt(objects);
      for (std::size_t i = 0; i < count && goes_on_; ++i) {
        const RadosLook& head = looks[2 * i];
        const RadosLook& other = looks[2 * i + 1];
        if (head.result == ENOENT && other.result == 0) {
          Show(others_[begin + i].name, other.own_size, content_ == EContent::kPicture);
        }
      }
    }
  }

  void Show(const StoredName& name, std::uint64_t size, bool is_temporary) {
    StoredEntry entry;
    entry.name = name;
    entry.path = FilePath(entry.name);
    entry.size = size;
    entry.content = content_;
    entry.is_temporary = is_temporary;
    goes_on_ = visitor_(entry);
  }

  CRadosPool& pool_;
  const EContent content_;
  const std::function<bool(const StoredEntry&)>& visitor_;
  std::vector<StoredName> heads_;  // that are not shown yet
  std::vector<Other> others_;
  bool goes_on_ = true;
  int error_ = 0;
};

}  // namespace
}  // namespace details

int WalkPool(CRadosPool& pool, EContent content, const std::function<bool(const StoredEntry&)>& visitor) {
  return details::CWalk(pool, content, visitor).Run();
}

}  // namespace Tansy::Host
