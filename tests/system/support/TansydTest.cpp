#include "support/TansydTest.h"

#include <sqlite3.h>
#include <filesystem>

namespace system_tests {

Reply TansydTest::Send(const std::string& method, const std::string& target, const std::string& body,
                       const HeaderList& headers, const ConnectOptions& options) {
  const std::uint16_t port = options.tls ? server_.GetObjectHttpsPort() : server_.GetObjectPort();
  return Call(port, Signed({method, target, headers, body}), options);
}

Reply TansydTest::SendPlain(const std::string& method, const std::string& target, const std::string& body,
                            const HeaderList& headers) {
  return Call(server_.GetObjectPort(), {method, target, headers, body});
}

void TansydTest::MakeBucket(const std::string& name) {
  EXPECT_EQ(Outcome(Send("PUT", "/" + name, "<CreateBucketConfiguration/>")), "200") << server_.GetLog();
}

void TansydTest::Put(const std::string& target, const std::string& body) {
  EXPECT_EQ(Outcome(Send("PUT", target, body)), "200") << target << "\n" << server_.GetLog();
}

std::string TansydTest::Get(const std::string& target) {
  const Reply reply = Send("GET", target);
  EXPECT_EQ(Outcome(reply), "200") << target;
  EXPECT_TRUE(reply.is_whole) << target;
  return reply.body;
}

std::string ErrorXml(const std::string& word) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code>" + word + "</Code><Message>" + word +
         "</Message></Error>";
}

std::string Outcome(const Reply& reply) {
  const std::string word = reply.status == 200 ? "" : XmlValue(reply.body, "Code");
  return std::to_string(reply.status) + (word.empty() ? "" : " " + word);
}

std::size_t CountFiles(const std::string& folder) {
  std::error_code error;  // files come and go meanwhile
  std::size_t count = 0;
  for (auto item = std::filesystem::recursive_directory_iterator(folder, error);
       !error && item != std::filesystem::recursive_directory_iterator(); item.increment(error)) {
    count += item->is_regular_file(error) ? 1 : 0;
  }
  return count;
}

std::string XmlValue(const std::string& xml, const std::string& name) {
  const std::string open = "<" + name + ">";
  const std::size_t begin = xml.find(open);
  const std::size_t end = begin == std::string::npos ? begin : xml.find("</" + name + ">", begin);
  return end == std::string::npos ? "" : xml.substr(begin + open.size(), end - begin - open.size());
}

std::vector<std::string> Query(const std::string& database_path, const std::string& sql) {
  sqlite3* database = nullptr;
  std::vector<std::string> rows;
  EXPECT_EQ(sqlite3_open(database_path.c_str(), &database), SQLITE_OK);
  sqlite3_busy_timeout(database, 5000);
  const auto add = [](void* list, int count, char** values, char**) {
    std::string row;
    for (int i = 0; i < count; ++i) {
      row += (i == 0 ? "" : "|") + std::string(values[i] == nullptr ? "NULL" : values[i]);
    }
    static_cast<std::vector<std::string>*>(list)->push_back(row);
    return 0;
  };
  char* error = nullptr;
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), add, &rows, &error), SQLITE_OK)
      << sql << ": " << (error == nullptr ? "" : error);
  sqlite3_free(error);
  sqlite3_close(database);
  return rows;
}

}  // namespace system_tests
