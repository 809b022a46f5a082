// The part of the host's SQL builder that concerns sequences.
#ifndef TANSY_SQLBUILDER_SQL_BUILDER_H
#define TANSY_SQLBUILDER_SQL_BUILDER_H

#include <memory>
#include <string>

#include "db_layer/DbLayer.h"

namespace sqlbuilder {

// Handles of a table and of a sequence, by their qualified names ("platform.local_bucket").
struct TableHandle {
  std::string name;
};
struct SequenceHandle {
  std::string name;
};
TableHandle tab(const std::string& name);
SequenceHandle seq(const std::string& name);

// Takes the next value of a sequence on a connection. After Execute has returned true, the value is the first column of
// the connection's current row. Threads: one at a time.
// Fixed: docs/compatibility.md, "Misspelt names".
class SeqenceBuilder {
 public:
  explicit SeqenceBuilder(std::shared_ptr<db_layer::CConnect> connection);
  SeqenceBuilder& NEXT_VAL(const SequenceHandle& sequence, const TableHandle& table);
  bool Execute();

 private:
  std::shared_ptr<db_layer::CConnect> connection_;
  std::string statement_;
};

}  // namespace sqlbuilder

#endif  // TANSY_SQLBUILDER_SQL_BUILDER_H
