// The host's own questions to the database of the catalogue, at a start and for a check. The running server uses
// db_layer's pool.
#ifndef TANSY_HOST_HOST_DATABASE_H
#define TANSY_HOST_HOST_DATABASE_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "db_layer/Connect.h"

namespace Tansy::Host {

// One thread uses it. Errors: members throw CStartFailure with kExitFailed and a line that names the database.
class IHostDatabase {
 public:
  virtual ~IHostDatabase() = default;

  // Runs one statement.
  virtual void Run(const std::string& sql) = 0;
  // Shows these columns of all rows of one query, as they were at one instant. What the visitor throws passes through.
  virtual void Query(const std::string& sql, const std::vector<std::string>& columns,
                     const db_layer::RowVisitor& visitor) = 0;
  // Says whether the catalogue has ever given an id to a row.
  virtual bool HasGivenIds() = 0;
  // Names the database in messages, without a password.
  virtual std::string GetName() const = 0;

  // These give the column `value` of the first row; 0 or "" when there is no row.
  long long QueryNumber(const std::string& sql);
  std::string QueryText(const std::string& sql);
};

// Writes a text as SQL does.
std::string QuotedText(const std::string& text);

}  // namespace Tansy::Host

#endif  // TANSY_HOST_HOST_DATABASE_H
