#include "Disk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace prove {
namespace {

constexpr std::uint64_t kPage = 4096;
constexpr std::uint64_t kSector = 512;

[[noreturn]] void Fail(const std::string& path) {
  throw std::runtime_error("the disk cannot be written: " + path + ": " + std::strerror(errno));
}

}  // namespace

const char* TextOf(ECut cut) {
  switch (cut) {
    case ECut::kAllLost:
      return "all lost";
    case ECut::kAllKept:
      return "all kept";
    case ECut::kInOrder:
      return "in order";
    case ECut::kByFile:
      return "by file";
    case ECut::kByPage:
      return "by page";
  }
  return "";
}

// One change of a file or a folder.
struct CDisk::Change {
  std::size_t position = 0;  // in the trace
  bool is_durable = false;
  bool is_doubtful = false;  // a sync of it failed
  bool is_resize = false;
  std::uint64_t offset = 0;
  std::uint64_t size = 0;  // of the file behind this change
  std::string_view data;
  std::vector<std::pair<std::string, Node*>> names;  // null: the name is taken away
};

struct CDisk::Node {
  bool is_folder = false;
  std::string bytes;                   // on the disk for certain
  std::map<std::string, Node*> names;  // the same of a folder
  std::vector<Change> changes;         // since then
  std::uint64_t size = 0;              // that a reader sees
};

// The choices of one cut.
class CDisk::CPick {
 public:
  CPick(ECut cut, std::size_t position, std::mt19937_64& random) : cut_(cut), random_(random) {
    moment_ = cut == ECut::kInOrder ? Below(position + 1) : position;
    share_ = std::vector<std::uint64_t>{5, 30, 50, 70, 95}[Below(5)];
    has_garbage_ = Below(20) == 0;
  }

  std::uint64_t Below(std::uint64_t limit) { return limit == 0 ? 0 : random_() % limit; }
  bool HasGarbage() const { return has_garbage_; }

  // To be called for each file and folder before its parts.
  void BeginNode() { keeps_node_ = Below(100) < share_; }

  // Says how many of the changes of a file, or of one page of it, are there: at least `least`, at most all.
  std::size_t Count(const std::vector<Change>& changes, std::size_t least) {
    switch (cut_) {
      case ECut::kAllLost:
        return least;
      case ECut::kAllKept:
        return changes.size();
      case ECut::kInOrder: {
        const auto end = std::find_if(changes.begin(), changes.end(),
                                      [this](const Change& change) { return change.position >= moment_; });
        return std::max<std::size_t>(least, static_cast<std::size_t>(end - changes.begin()));
      }
      case ECut::kByFile:
        return keeps_node_ ? changes.size() : least;
      case ECut::kByPage: {
        const std::uint64_t way = Below(3);
        return way == 0 ? least : way == 1 ? changes.size() : least + Below(changes.size() - least + 1);
      }
    }
    return least;
  }
  // Says whether one change of a folder is there.
  bool Keeps(const Change& change) {
    switch (cut_) {
      case ECut::kAllLost:
        return false;
      case ECut::kAllKept:
        return true;
      case ECut::kInOrder:
        return change.position < moment_;
      case ECut::kByFile:
        return keeps_node_;
      case ECut::kByPage:
        return Below(100) < share_;
    }
    return false;
  }
  bool Tears() { return cut_ == ECut::kByPage && Below(8) == 0; }

 private:
  const ECut cut_;
  std::mt19937_64& random_;
  std::size_t moment_ = 0;
  std::uint64_t share_ = 0;
  bool has_garbage_ = false;
  bool keeps_node_ = false;
};

CDisk::CDisk(const CTrace& trace) : records_(trace.GetRecords()) {}
CDisk::~CDisk() = default;

CDisk::Node& CDisk::NodeOf(std::uint64_t number) {
  Node*& node = current_[number];
  if (node == nullptr) {
    nodes_.push_back(std::make_unique<Node>());
    node = nodes_.back().get();
  }
  return *node;
}

void CDisk::AdvanceTo(std::size_t position) {
  for (; position_ < position && position_ < records_.size(); ++position_) {
    Take(records_[position_]);
  }
}

void CDisk::Take(const Record& record) {
  const RecordHead& head = record.head;
  const std::string name(record.name);
  switch (head.kind) {
    case ERecord::kRoot:
      root_ = &NodeOf(head.node);
      root_->is_folder = true;
      break;
    case ERecord::kExists:
    case ERecord::kFolderThere: {
      Node& node = NodeOf(head.node);
      node.is_folder = head.kind == ERecord::kFolderThere;
      node.bytes = record.data;
      node.size = record.data.size();
      NodeOf(head.folder).names[name] = &node;
      break;
    }
    case ERecord::kCreate:
    case ERecord::kMakeFolder: {
      current_.erase(head.node);
      Node& node = NodeOf(head.node);
      node.is_folder = head.kind == ERecord::kMakeFolder;
      SetName(head.folder, {{name, &node}});
      break;
    }
    case ERecord::kWrite: {
      Node& node = NodeOf(head.node);
      Change change;
      change.position = position_;
      change.offset = head.offset;
      change.data = record.data;
      change.size = node.size = std::max<std::uint64_t>(node.size, head.offset + record.data.size());
      node.changes.push_back(std::move(change));
      break;
    }
    case ERecord::kResize: {
      Node& node = NodeOf(head.node);
      Change change;
      change.position = position_;
      change.is_resize = true;
      change.size = node.size = head.size;
      node.changes.push_back(std::move(change));
      break;
    }
    case ERecord::kRename: {
      const std::string other(record.other_name);
      Node* moved = Find(NodeOf(head.folder), name);
      if (head.folder == head.other_folder) {
        SetName(head.folder, {{name, nullptr}, {other, moved}});
      } else {
        SetName(head.folder, {{name, nullptr}});
        SetName(head.other_folder, {{other, moved}});
      }
      break;
    }
    case ERecord::kRemove:
      SetName(head.folder, {{name, nullptr}});
      break;
    case ERecord::kLink:
      SetName(head.folder, {{name, &NodeOf(head.node)}});
      break;
    case ERecord::kSyncBegins:
      syncs_[head.offset] = position_;
      break;
    case ERecord::kSyncEnds:
      TakeSync(record);
      break;
    case ERecord::kMark:
      break;
  }
}

void CDisk::SetName(std::uint64_t folder, std::vector<std::pair<std::string, Node*>> names) {
  Change change;
  change.position = position_;
  change.names = std::move(names);
  NodeOf(folder).changes.push_back(std::move(change));
}

// What a reader finds under a name.
CDisk::Node* CDisk::Find(const Node& folder, const std::string& name) {
  for (auto change = folder.changes.rbegin(); change != folder.changes.rend(); ++change) {
    for (const auto& [changed, node] : change->names) {
      if (changed == name) {
        return node;
      }
    }
  }
  const auto found = folder.names.find(name);
  return found == folder.names.end() ? nullptr : found->second;
}

void CDisk::TakeSync(const Record& record) {
  const auto begin = syncs_.find(record.head.offset);
  if (begin == syncs_.end()) {
    return;
  }
  Node& node = NodeOf(record.head.node);
  for (Change& change : node.changes) {
    if (change.position >= begin->second) {
      continue;
    }
    if (record.head.error == 0) {
      change.is_durable = change.is_durable || !change.is_doubtful;
    } else {
      // The system takes the pages for written. Names stay in the journal, and the next sync writes them.
      change.is_doubtful = !node.is_folder;
    }
  }
  syncs_.erase(begin);
  Collapse(node);
}

// Puts the changes that are certain to what is on the disk.
void CDisk::Collapse(Node& node) {
  std::size_t done = 0;
  for (; done < node.changes.size() && node.changes[done].is_durable; ++done) {
    const Change& change = node.changes[done];
    for (const auto& [name, target] : change.names) {
      if (target == nullptr) {
        node.names.erase(name);
      } else {
        node.names[name] = target;
      }
    }
    if (!node.is_folder) {
      if (change.is_resize || change.size > node.bytes.size()) {
        node.bytes.resize(change.size, '\0');
      }
      node.bytes.replace(change.offset, change.data.size(), change.data);
    }
  }
  node.changes.erase(node.changes.begin(), node.changes.begin() + static_cast<std::ptrdiff_t>(done));
}

void CDisk::WriteTo(const std::string& folder, ECut cut, std::mt19937_64& random) const {
  if (root_ == nullptr) {
    return;
  }
  CPick pick(cut, position_, random);
  WriteFolder(*root_, folder, pick);
}

void CDisk::WriteFolder(const Node& node, const std::string& path, CPick& pick) const {
  pick.BeginNode();
  std::map<std::string, Node*> names = node.names;
  for (const Change& change : node.changes) {
    if (!change.is_durable && !pick.Keeps(change)) {
      continue;
    }
    for (const auto& [name, target] : change.names) {
      if (target == nullptr) {
        names.erase(name);
      } else {
        names[name] = target;
      }
    }
  }
  for (const auto& [name, target] : names) {
    const std::string item = path + "/" + name;
    if (!target->is_folder) {
      WriteFile(*target, item, pick);
    } else if (::mkdir(item.c_str(), 0700) != 0) {
      Fail(item);
    } else {
      WriteFolder(*target, item, pick);
    }
  }
}

void CDisk::WriteFile(const Node& node, const std::string& path, CPick& pick) {
  pick.BeginNode();
  const std::vector<Change>& changes = node.changes;
  // Where the changes end that a place of the file must have, because it was synced with the last of them.
  const auto least = [&changes](std::uint64_t begin, std::uint64_t end) {
    for (std::size_t i = changes.size(); i > 0; --i) {
      const Change& change = changes[i - 1];
      const bool touches =
          change.is_resize ? change.size < end : change.offset < end && change.offset + change.data.size() > begin;
      if (change.is_durable && touches) {
        return i;
      }
    }
    return std::size_t{0};
  };
  std::size_t durable = changes.size();
  while (durable > 0 && !changes[durable - 1].is_durable) {
    --durable;
  }
  const std::size_t size_count = pick.Count(changes, durable);
  const std::uint64_t size = size_count == 0 ? node.bytes.size() : changes[size_count - 1].size;

  // What is cut off a file goes together with its size: pages hold nothing from the other side of such a change.
  std::size_t first_count = 0;
  std::size_t last_count = changes.size();
  for (std::size_t i = 0; i < changes.size(); ++i) {
    const std::uint64_t before = i == 0 ? node.bytes.size() : changes[i - 1].size;
    if (changes[i].is_resize && changes[i].size < before) {
      (i < size_count ? first_count : last_count) = i < size_count ? i + 1 : std::min(last_count, i);
    }
  }

  std::string content = node.bytes;
  content.resize(size, '\0');
  if (pick.HasGarbage()) {
    for (std::uint64_t i = node.bytes.size(); i < size; ++i) {
      content[i] = static_cast<char>(pick.Below(256));
    }
  }
  const auto apply = [&](std::uint64_t begin, std::uint64_t end, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const Change& change = changes[i];
      const std::uint64_t from = std::max(begin, change.is_resize ? change.size : change.offset);
      const std::uint64_t to =
          change.is_resize ? end : std::min<std::uint64_t>(end, change.offset + change.data.size());
      if (from >= to) {
        continue;
      }
      if (change.is_resize) {
        std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(from), to - from, '\0');
      } else {
        std::copy_n(change.data.begin() + static_cast<std::ptrdiff_t>(from - change.offset), to - from,
                    content.begin() + static_cast<std::ptrdiff_t>(from));
      }
    }
  };
  if (!changes.empty()) {
    for (std::uint64_t begin = 0; begin < size; begin += kPage) {
      const std::uint64_t end = std::min(size, begin + kPage);
      const std::size_t lowest = std::max(first_count, least(begin, end));
      const auto count = [&] { return std::min(last_count, pick.Count(changes, lowest)); };
      const std::uint64_t tear = pick.Tears() ? begin + kSector * pick.Below(kPage / kSector) : end;
      apply(begin, std::min(tear, end), count());
      if (tear < end) {
        apply(tear, end, count());
      }
    }
  }
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  for (std::size_t done = 0; done < content.size();) {
    const ssize_t written = descriptor < 0 ? -1 : ::write(descriptor, content.data() + done, content.size() - done);
    if (written <= 0) {
      Fail(path);
    }
    done += static_cast<std::size_t>(written);
  }
  if (descriptor < 0 || ::close(descriptor) != 0) {
    Fail(path);
  }
}

}  // namespace prove
