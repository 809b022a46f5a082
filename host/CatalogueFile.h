// What the catalogue's file says at one instant. The check uses it, because it only looks, also beside a running
// server.
#ifndef TANSY_HOST_CATALOGUE_FILE_H
#define TANSY_HOST_CATALOGUE_FILE_H

#include <cstdint>
#include <functional>
#include <set>
#include <string>

#include "SqliteFile.h"

namespace Tansy::Host {

// A row that refers to stored bytes.
struct CatalogueRow {
  bool is_task = false;  // the row is a part of an upload, not an object
  std::string bucket;
  std::string object;
  std::string url;
  std::uint32_t size = 0;  // low 32 bits of the size
};

// One thread uses it. Every member throws CStartFailure with kExitFailed when the file cannot be read.
class CCatalogueFile {
 public:
  // All answers are as of now, whatever a server writes meanwhile. The file must have the newest schema.
  explicit CCatalogueFile(const std::string& file);

  void VisitRows(const std::function<void(const CatalogueRow&)>& visitor);
  std::set<std::string> TaskIds();
  // Shows the urls of bytes that removed and replaced objects left: a running server frees them when their time comes.
  void VisitReleased(const std::function<void(const std::string& url)>& visitor);

 private:
  CSqliteFile database_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CATALOGUE_FILE_H
