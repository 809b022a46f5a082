#include "Check.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string>
#include <vector>

#include "Catalogue.h"
#include "FirstParts.h"
#include "StartFailure.h"
#include "TansyBase/TimeUtil.h"

namespace Tansy::Host {
namespace details {
namespace {

// A stored name in the room that millions of them leave: volume, folder and id without their separators.
using PackedName = std::array<char, 40>;

PackedName Pack(const StoredName& name) {
  const std::string text = name.volume + name.folder + name.id;
  PackedName packed{};
  std::copy_n(text.begin(), std::min(text.size(), packed.size()), packed.begin());
  return packed;
}

// A name that a client chose, fit for a line of its own.
std::string Printable(const std::string& text) {
  std::string printable = text;
  std::replace_if(
      printable.begin(), printable.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; },
      '?');
  return printable;
}

class CCheck {
 public:
  CCheck(IObjectStore& store, bool repair, std::ostream& out) : store_(store), repair_(repair), out_(out) {}

  int Run() {
    complete_ = VisitCatalogue([this](const CatalogueRow& row) { LookAt(row); });
    if (!complete_) {
      // Without every row anything stored might look like an orphan.
      out_ << "check: the catalogue cannot be read\n";
      return kExitFailed;
    }
    std::sort(referred_.begin(), referred_.end());
    complete_ = store_.ForEach([this](const StoredEntry& entry) { LookAt(entry); });
    complete_ = VisitDeadFirstParts(TansyBase::TimeUtil::Now(), repair_,
                                    [this](const DeadFirstPart& part) {
                                      out_ << "first-part " << Printable(part.name) << ' ' << part.size << '\n';
                                      ++orphans_;
                                      orphan_bytes_ += part.size;
                                      freed_ += repair_ ? 1 : 0;
                                    }) &&
                complete_;
    if (repair_ && complete_) {
      // What was waiting to be freed is free now.
      complete_ = ForgetAllReleased();
    }
    return SumUp();
  }

 private:
  void LookAt(const CatalogueRow& row) {
    ++rows_;
    StoredName name;
    std::uint64_t size = 0;
    const bool is_known = ParseOwnText(row.url, name);
    if (is_known) {
      referred_.push_back(Pack(name));
    }
    const EStoreResult result = is_known ? store_.GetSize(name, size) : EStoreResult::kInvalid;
    if (result == EStoreResult::kDone && (row.is_task || size >= row.size)) {
      return;
    }
    ++damaged_;
    out_ << (result == EStoreResult::kDone ? "short /" : "missing /") << Printable(row.bucket) << '/'
         << Printable(row.object) << ' ' << Printable(row.url) << '\n';
  }

  void LookAt(const StoredEntry& entry) {
    ++files_;
    const bool is_orphan =
        entry.is_temporary || (entry.content == EContent::kObject &&
                               !std::binary_search(referred_.begin(), referred_.end(), Pack(entry.name)));
    if (!is_orphan) {
      return;
    }
    ++orphans_;
    orphan_bytes_ += entry.size;
    out_ << "orphan " << entry.path << ' ' << entry.size << '\n';
    if (repair_) {
      freed_ += store_.RemovePath(entry.path) == EStoreResult::kDone ? 1 : 0;
    }
  }

  int SumUp() {
    out_ << "check: " << rows_ << " rows, " << files_ << " stored files, " << orphans_ << " orphans (" << orphan_bytes_
         << " bytes), " << freed_ << " freed, " << damaged_ << " damaged"
         << (complete_ ? "" : "; not everything could be read, see the log") << '\n';
    if (!complete_) {
      return kExitFailed;
    }
    return damaged_ == 0 && freed_ == orphans_ ? kExitDone : kExitFindings;
  }

  IObjectStore& store_;
  const bool repair_;
  std::ostream& out_;
  std::vector<PackedName> referred_;
  bool complete_ = false;
  std::uint64_t rows_ = 0;
  std::uint64_t files_ = 0;
  std::uint64_t orphans_ = 0;
  std::uint64_t orphan_bytes_ = 0;
  std::uint64_t freed_ = 0;
  std::uint64_t damaged_ = 0;  // missing or short
};

}  // namespace
}  // namespace details

int RunCheck(IObjectStore& store, bool repair, std::ostream& out) {
  return details::CCheck(store, repair, out).Run();
}

}  // namespace Tansy::Host
