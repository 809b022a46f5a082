#include "Check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "CatalogueFile.h"
#include "FirstParts.h"
#include "PrintableText.h"
#include "StartFailure.h"

namespace Tansy::Host {
namespace details {
namespace {

constexpr std::uint64_t kRepairableShare = 10;  // without --force, at most a tenth of all bytes may be freed
constexpr std::size_t kFreedAtOnce = 100;

// The id, folder and volume of a stored name without separators. Millions of names need little memory in this form.
using PackedName = std::array<char, 40>;
using PackedNames = std::vector<PackedName>;  // sorted

PackedName Pack(const StoredName& name) {
  const std::string text = name.volume + name.folder + name.id;
  PackedName packed{};
  std::copy_n(text.begin(), std::min(text.size(), packed.size()), packed.begin());
  return packed;
}

bool Holds(const PackedNames& names, const StoredName& name) {
  return std::binary_search(names.begin(), names.end(), Pack(name));
}

struct Damage {
  CatalogueRow row;
  const char* what = "";  // the word of the finding
};

class CCheck {
 public:
  CCheck(IObjectStore& store, const db_layer::DBParam& database, const CheckOptions& options, std::ostream& out)
      : store_(store), database_(database), options_(options), out_(out) {}

  int Run() {
    complete_ = NoteUnfinished();
    referred_ = ReadCatalogue([this](const CatalogueRow& row, const StoredName* name) { LookAt(row, name); });
    complete_ = LookAtFiles() && complete_;
    complete_ =
        FindDeadFirstParts([this](std::set<std::string>& ids) { return ReadTasks(ids); }, first_parts_) && complete_;
    complete_ = NoteUnfinished() && complete_;
    LookAgain();
    Report();
    if (options_.repair && MayRepair()) {
      Repair();
    }
    return SumUp();
  }

 private:
  // Shows all rows to the visitor and collects the names in them.
  PackedNames ReadCatalogue(const std::function<void(const CatalogueRow& row, const StoredName* name)>& visitor) {
    PackedNames names;
    CCatalogueFile(database_).VisitRows([this, &names, &visitor](const CatalogueRow& row) {
      if (IsStopping()) {
        throw CStartFailure(kExitFailed, "the server is stopping");
      }
      StoredName name;
      const bool is_known = ParseOwnText(row.url, name);
      if (is_known) {
        names.push_back(Pack(name));
      }
      visitor(row, is_known ? &name : nullptr);
    });
    std::sort(names.begin(), names.end());
    return names;
  }

  // Collects the names of bytes that removed and replaced objects left.
  PackedNames ReadReleased() {
    PackedNames names;
    CCatalogueFile(database_).VisitReleased([&names](const std::string& url) {
      StoredName name;
      if (ParseOwnText(url, name)) {
        names.push_back(Pack(name));
      }
    });
    std::sort(names.begin(), names.end());
    return names;
  }

  bool ReadTasks(std::set<std::string>& ids) {
    ids = CCatalogueFile(database_).TaskIds();
    return true;
  }

  bool NoteUnfinished() {
    std::vector<StoredName> names;
    if (options_.unfinished && !options_.unfinished(names)) {
      return false;
    }
    std::transform(names.begin(), names.end(), std::back_inserter(unfinished_), &Pack);
    std::sort(unfinished_.begin(), unfinished_.end());
    return true;
  }

  void LookAt(const CatalogueRow& row, const StoredName* name) {
    ++rows_;
    std::uint64_t size = 0;
    const EStoreResult result = name != nullptr ? store_.GetSize(*name, size) : EStoreResult::kInvalid;
    if (result != EStoreResult::kDone || (!row.is_task && size < row.size)) {
      damaged_.push_back({row, result != EStoreResult::kDone ? "missing" : "short"});
    }
  }

  bool LookAtFiles() {
    const auto look = [this](const StoredEntry& entry) {
      ++files_;
      bytes_ += entry.size;
      if (entry.is_damaged && entry.name.id.empty()) {
        unreadable_.push_back(entry);
      } else if (entry.is_damaged && Holds(referred_, entry.name)) {
        spoilt_.push_back(Pack(entry.name));
      } else if (entry.is_temporary || (entry.content == EContent::kObject && !Holds(referred_, entry.name))) {
        orphans_.push_back(entry);
      }
      return !IsStopping();
    };
    const bool complete = store_.ForEach(EContent::kObject, look) && store_.ForEach(EContent::kPicture, look);
    std::sort(spoilt_.begin(), spoilt_.end());
    return complete && !IsStopping();
  }

  // A running server has gone on meanwhile: what it has finished since then, or is still writing, is no finding.
  void LookAgain() {
    std::vector<std::string> urls;
    const PackedNames referred = ReadCatalogue([this, &urls](const CatalogueRow& row, const StoredName* name) {
      urls.push_back(row.url);
      if (name != nullptr && Holds(spoilt_, *name)) {
        damaged_.push_back({row, "damaged"});
      }
    });
    std::sort(urls.begin(), urls.end());
    std::erase_if(damaged_, [this, &urls](const Damage& damage) {
      return !std::binary_search(urls.begin(), urls.end(), damage.row.url) || IsWhole(damage.row);
    });
    // This comes after the look at the rows: bytes that lose their row in between are released then.
    const PackedNames released = ReadReleased();
    complete_ = NoteUnfinished() && complete_;  // with this, the store knows what was freed by then
    std::erase_if(orphans_, [this, &referred](const StoredEntry& entry) {
      return !entry.is_temporary && (Holds(referred, entry.name) || IsGone(entry.name));
    });
    const auto kept = std::stable_partition(orphans_.begin(), orphans_.end(), [&released](const StoredEntry& entry) {
      return entry.is_temporary || !Holds(released, entry.name);
    });
    kept_.assign(kept, orphans_.end());
    orphans_.erase(kept, orphans_.end());
    std::erase_if(orphans_, [this](const StoredEntry& entry) {
      return Holds(unfinished_, entry.name) || store_.IsNew(entry.name);
    });
  }

  bool IsGone(const StoredName& name) {
    std::uint64_t size = 0;
    return store_.GetSize(name, size) == EStoreResult::kMissing;
  }

  bool IsWhole(const CatalogueRow& row) {
    StoredName name;
    std::uint64_t size = 0;
    return ParseOwnText(row.url, name) && store_.GetSize(name, size) == EStoreResult::kDone &&
           (row.is_task || size >= row.size) && !(Holds(spoilt_, name) && IsSpoilt(name));
  }

  // What a running server was just writing when it was looked at is whole by now.
  bool IsSpoilt(const StoredName& name) {
    ReadBuffer buffer;
    return store_.ReadWhole(name, buffer) != EStoreResult::kDone;
  }

  void Report() {
    for (const Damage& damage : damaged_) {
      out_ << damage.what << " /" << Printable(damage.row.bucket) << '/' << Printable(damage.row.object) << ' '
           << Printable(damage.row.url) << '\n';
    }
    for (const StoredEntry& entry : unreadable_) {
      out_ << "unreadable " << entry.path << ' ' << entry.size << '\n';
    }
    for (const StoredEntry& entry : orphans_) {
      out_ << "orphan " << entry.path << ' ' << entry.size << '\n';
      orphan_bytes_ += entry.size;
    }
    for (const DeadFirstPart& part : first_parts_) {
      out_ << "first-part " << Printable(part.name) << ' ' << part.size << '\n';
      orphan_bytes_ += part.size;
      bytes_ += part.size;
    }
    for (const StoredEntry& entry : kept_) {
      out_ << "kept " << entry.path << ' ' << entry.size << '\n';
      kept_bytes_ += entry.size;
    }
  }

  bool MayRepair() {
    if (options_.force || OrphanCount() == 0) {
      return true;
    }
    if (rows_ == 0) {
      out_ << "check: nothing is freed: the catalogue is empty, so it may be the wrong one; --force frees all the "
              "same\n";
      return false;
    }
    if (orphan_bytes_ > bytes_ / kRepairableShare) {
      out_ << "check: nothing is freed: that would be " << orphan_bytes_ << " of " << bytes_
           << " bytes, more than a tenth, so the catalogue may be the wrong one; --force frees all the same\n";
      return false;
    }
    return true;
  }

  void Repair() {
    for (std::size_t begin = 0; begin < orphans_.size() && !IsStopping(); begin += kFreedAtOnce) {
      const std::size_t end = std::min(orphans_.size(), begin + kFreedAtOnce);
      std::vector<std::string> urls;
      for (std::size_t i = begin; i < end; ++i) {
        urls.push_back(LocationText(orphans_[i].name));
      }
      std::set<std::string> given_up(urls.begin(), urls.end());
      if (options_.give_up) {
        given_up.clear();
        complete_ = options_.give_up(urls, given_up) && complete_;
      }
      for (std::size_t i = begin; i < end; ++i) {
        if (given_up.count(urls[i - begin]) > 0 && store_.RemovePath(orphans_[i].path) == EStoreResult::kDone) {
          ++freed_;
        }
      }
    }
    for (const DeadFirstPart& part : first_parts_) {
      freed_ += RemoveFirstPart(part.name) ? 1 : 0;
    }
  }

  int SumUp() {
    out_ << "check: " << rows_ << " rows, " << files_ << " stored files, " << OrphanCount() << " orphans ("
         << orphan_bytes_ << " bytes), " << freed_ << " freed, " << damaged_.size() + unreadable_.size() << " damaged, "
         << kept_.size() << " kept (" << kept_bytes_ << " bytes)"
         << (complete_ ? "" : "; not everything could be read, see the log") << '\n';
    if (!complete_) {
      return kExitFailed;
    }
    return damaged_.empty() && unreadable_.empty() && freed_ == OrphanCount() ? kExitDone : kExitFindings;
  }

  std::size_t OrphanCount() const { return orphans_.size() + first_parts_.size(); }
  bool IsStopping() const { return options_.is_stopping && options_.is_stopping(); }

  IObjectStore& store_;
  const db_layer::DBParam& database_;
  const CheckOptions& options_;
  std::ostream& out_;
  PackedNames referred_;
  PackedNames unfinished_;
  std::vector<StoredEntry> orphans_;
  std::vector<StoredEntry> kept_;  // no row names them, but a running server frees them when their time comes
  std::vector<StoredEntry> unreadable_;
  PackedNames spoilt_;  // bytes that rows name and that are not what was stored
  std::vector<DeadFirstPart> first_parts_;
  std::vector<Damage> damaged_;
  bool complete_ = false;
  std::uint64_t rows_ = 0;
  std::uint64_t files_ = 0;
  std::uint64_t bytes_ = 0;  // of all files
  std::uint64_t orphan_bytes_ = 0;
  std::uint64_t kept_bytes_ = 0;
  std::size_t freed_ = 0;
};

}  // namespace
}  // namespace details

int RunCheck(IObjectStore& store, const db_layer::DBParam& database, const CheckOptions& options, std::ostream& out) {
  return details::CCheck(store, database, options, out).Run();
}

}  // namespace Tansy::Host
