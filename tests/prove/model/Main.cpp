// prove_model: random requests from eight connections against a tansyd that is killed, stopped and started again, and a
// model that says which answers there can have been. Also looks at the history of an earlier run.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <ctime>
#include <exception>
#include <fstream>
#include <iostream>
#include <string>

#include "History.h"
#include "ModelServers.h"
#include "Run.h"
#include "TansydServer.h"
#include "fakes/TempFolder.h"

namespace {

constexpr int kWrong = 1;
constexpr int kUsage = 2;

int LookAtHistory(const std::string& path) {
  std::ifstream file(path);
  if (!file) {
    std::cerr << "model: " << path << " cannot be read\n";
    return kUsage;
  }
  prove::CHistory history;
  prove::CHistory::Load(file, history);
  const std::vector<std::string> wrong = history.Check();
  std::cout << "model: " << history.GetCount() << " operations, " << wrong.size() << " contradictions\n";
  for (const std::string& line : wrong) {
    std::cout << "  " << line << '\n';
  }
  return wrong.empty() ? 0 : kWrong;
}

struct Where {
  std::string database = "sqlite";
  std::string storage = "file";
  std::size_t nodes = 1;
};

int Run(prove::RunOptions options, prove::TansydOptions tansyd, const std::string& durability, const Where& where) {
  std::cout << "model: seed " << options.seed << ", " << where.database << " and " << where.storage << ", "
            << where.nodes << (where.nodes == 1 ? " server" : " nodes") << ", durability " << durability
            << (tansyd.tls ? ", HTTPS" : "") << std::endl;
  tansyd.arguments = {"--durability", durability, "--keep-failed", "1", "--keep-removed", "0"};
  const Tansy::Tests::CTempFolder folder;
  const prove::CModelServers servers(
      folder.GetPath(), tansyd, where.nodes,
      where.database == "postgresql" ? prove::EDatabase::kPostgres : prove::EDatabase::kSqlite,
      where.storage == "rados" ? prove::EStorage::kPool : prove::EStorage::kFolder);
  const prove::RunResult result = servers.Run(options);
  std::cout << prove::Describe(options, result);
  if (!result.wrong.empty()) {
    std::ofstream(options.history_file + ".log") << servers.GetLogs();
    std::cout << "  the log of the server is in " << options.history_file << ".log\n";
  }
  return result.wrong.empty() && !testing::UnitTest::GetInstance()->Failed() ? 0 : kWrong;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest();
  CLI::App app("Refutes, or fails to refute, that the server answers as one copy of each object would", "model");
  prove::RunOptions options;
  options.seed = static_cast<std::uint64_t>(std::time(nullptr));
  options.rounds = 10;
  options.history_file = "model-history.txt";
  std::int64_t minutes = 0;
  std::string history;
  std::string durability = "full";
  prove::TansydOptions tansyd;
  Where where;
  app.add_option("--seed", options.seed, "of the plan; without it, the time of day");
  app.add_option("--minutes", minutes, "rounds until this time is over");
  app.add_option("--rounds", options.rounds, "this number of rounds, without --minutes");
  app.add_option("--durability", durability, "of the server: full or fast");
  app.add_option("--tansyd", tansyd.program, "a tansyd_with_control of another build");
  app.add_option("--database", where.database, "sqlite, or postgresql: a server of the run's own")
      ->check(CLI::IsMember({"sqlite", "postgresql"}));
  app.add_option("--storage", where.storage, "file, or rados: a Ceph cluster of the run's own")
      ->check(CLI::IsMember({"file", "rados"}));
  app.add_option("--nodes", where.nodes, "servers of one catalogue; more than one need PostgreSQL")
      ->check(CLI::Range(1, 5));
  app.add_flag("--https", tansyd.tls, "the clients use HTTPS");
  app.add_option("--history", options.history_file, "where the history of a failing round goes");
  app.add_option("--check-history", history, "looks at such a file, and starts no server");
  CLI11_PARSE(app, argc, argv);
  options.time = std::chrono::minutes(minutes);
  if (where.nodes > 1 && where.database != "postgresql") {
    std::cerr << "model: several nodes need --database postgresql\n";
    return kUsage;
  }
  try {
    return history.empty() ? Run(options, tansyd, durability, where) : LookAtHistory(history);
  } catch (const std::exception& error) {
    std::cerr << "model: " << error.what() << '\n';
    return kUsage;
  }
}
