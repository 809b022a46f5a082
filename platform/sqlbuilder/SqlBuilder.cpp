#include "sqlbuilder/SqlBuilder.h"

#include <utility>

namespace sqlbuilder {

TableHandle tab(const std::string& name) {
  return {name};
}

SequenceHandle seq(const std::string& name) {
  return {name};
}

SeqenceBuilder::SeqenceBuilder(std::shared_ptr<db_layer::CConnect> connection) : connection_(std::move(connection)) {}

// Every supported database keeps its sequences by name, so the table only says whose ids they are.
SeqenceBuilder& SeqenceBuilder::NEXT_VAL(const SequenceHandle& sequence, const TableHandle&) {
  std::string name;
  for (const char c : sequence.name) {
    name.append(c == '\'' ? 2 : 1, c);
  }
  statement_ = "SELECT nextval('" + name + "')";
  return *this;
}

bool SeqenceBuilder::Execute() {
  return connection_ && !statement_.empty() && connection_->Query(statement_) && !connection_->IsEnd();
}

}  // namespace sqlbuilder
