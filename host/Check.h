#ifndef TANSY_HOST_CHECK_H
#define TANSY_HOST_CHECK_H

#include <functional>
#include <iosfwd>
#include <set>
#include <string>
#include <vector>

#include "ObjectStore.h"
#include "db_layer/Connect.h"

namespace Tansy::Host {

struct CheckOptions {
  bool repair = false;
  bool force = false;  // --repair works even when this looks like the wrong catalogue
  // Looks again at what a running server has done to the store, and gives the names that it is writing or whose row it
  // is about to write; null when none runs. It is asked before and after the look at the files, and once more when the
  // catalogue has been read for the last time.
  std::function<bool(std::vector<StoredName>& names)> unfinished;
  // Makes sure that no row can name these bytes before they are freed; null when no server runs.
  std::function<bool(const std::vector<std::string>& urls, std::set<std::string>& given_up)> give_up;
  std::function<bool()> is_stopping;  // null: never
};

// Compares catalogue and stored bytes, also of a server that runs, and writes what differs to `out`, one finding per
// line, then one line that sums up:
//
//   orphan PATH SIZE            stored bytes that nothing refers to; freed by `repair`
//   first-part NAME SIZE        a first part whose upload task is gone; removed by `repair`
//   kept PATH SIZE              bytes of a removed or replaced object, or of an abandoned upload, that a running server
//                               frees when their time comes; no finding, and left alone by `repair`
//   missing /BUCKET/OBJECT URL  a row whose bytes are not there
//   short /BUCKET/OBJECT URL    a row whose bytes are fewer than it says
//   damaged /BUCKET/OBJECT URL  a row whose bytes are not those that were stored; only small objects are read for that
//   unreadable PATH SIZE        a file of small objects in which nothing can be found; never freed
//
// Nothing is freed before everything has been looked at, and nothing at all without `force` when the catalogue is empty
// or more than a tenth of all stored bytes would go: then it is more likely the wrong catalogue.
//
// Returns an exit code: kExitDone when all is well or has been mended, kExitFindings when something is left,
// kExitFailed when it could not look everywhere. Throws CStartFailure when the catalogue cannot be read.
int RunCheck(IObjectStore& store, const db_layer::DBParam& database, const CheckOptions& options, std::ostream& out);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CHECK_H
