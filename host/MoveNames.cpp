#include "MoveNames.h"

#include <cstdlib>

#include "DatabaseUrl.h"
#include "MoveDatabase.h"
#include "db_layer/DbLayer.h"

namespace Tansy::Host {

std::string Packed(const std::vector<std::string>& texts) {
  std::string packed;
  for (const std::string& text : texts) {
    packed += std::to_string(text.size()) + ":" + text;
  }
  return packed;
}

std::vector<std::string> Unpacked(const std::string& text) {
  std::vector<std::string> texts;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = text.find(':', begin);
    if (end == std::string::npos) {
      break;
    }
    const std::size_t size = std::strtoull(text.c_str() + begin, nullptr, 10);
    texts.push_back(text.substr(end + 1, size));
    begin = end + 1 + size;
  }
  return texts;
}

std::string DescribeGoal(const MovedMark& mark) {
  db_layer::DBParam param;
  ParseDatabaseUrl(mark.database, param);
  const std::string database = mark.database.empty() ? "" : "database " + db_layer::DescribeDatabase(param);
  const std::string storage = mark.storage.empty() ? "" : "storage " + mark.storage;
  return database + (database.empty() || storage.empty() ? "" : " and ") + storage;
}

std::vector<std::string> EndStatements(const MovedMark& mark) {
  return {CMoveDatabase::SetValue("store_id", mark.store_id), CMoveDatabase::SetValue(kMoveLeaves, mark.move),
          CMoveDatabase::DropValue(kMoveFrom)};
}

}  // namespace Tansy::Host
