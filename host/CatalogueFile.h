// What the catalogue's database says at one instant. The check uses it, because it only looks, also beside a running
// server.
#ifndef TANSY_HOST_CATALOGUE_FILE_H
#define TANSY_HOST_CATALOGUE_FILE_H

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "HostDatabase.h"

namespace Tansy::Host {

// A row that refers to stored bytes.
struct CatalogueRow {
  bool is_task = false;  // the row is a part of an upload task, whose bytes lie inside those at the url
  std::string bucket;
  std::string object;
  std::string url;
  std::uint32_t size = 0;  // low 32 bits of the size
};

// One thread uses it. Every member throws CStartFailure with kExitFailed when the database cannot be read.
class CCatalogueFile {
 public:
  // The answers of a file are all as of now, whatever a server writes meanwhile; those of a database server are each as
  // of when it is asked. The schema must be the newest.
  explicit CCatalogueFile(const db_layer::DBParam& database);

  void VisitRows(const std::function<void(const CatalogueRow&)>& visitor);
  // Counts the objects.
  std::uint64_t CountObjects();
  std::set<std::string> TaskIds();
  // Shows the urls of bytes that removed and replaced objects left: a running server frees them when their time comes.
  void VisitReleased(const std::function<void(const std::string& url)>& visitor);

 private:
  const std::unique_ptr<IHostDatabase> database_;
};

}  // namespace Tansy::Host

#endif  // TANSY_HOST_CATALOGUE_FILE_H
