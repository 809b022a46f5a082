#include "RowHistory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include "fakes/PostgresProxy.h"
#include "fakes/PostgresServer.h"

namespace prove {
namespace {

using Tansy::Tests::CPostgresProxy;
using Tansy::Tests::CPostgresServer;

constexpr std::chrono::seconds kPatience{60};

// Changes are numbered. The lock keeps writers apart from their first change to the end of their transaction, so that
// the numbers come in the order of the commits. The trigger's name is the first of all, because what another trigger
// changes in turn comes behind the change that it answers.
constexpr const char* kNotes = R"(
CREATE SCHEMA prove;
GRANT USAGE ON SCHEMA prove TO public;
CREATE TABLE prove.changes (seq bigserial PRIMARY KEY, table_name text, before text, after text);
CREATE TABLE prove.place (seq bigint);
INSERT INTO prove.place VALUES (0);

CREATE FUNCTION prove.note() RETURNS trigger LANGUAGE plpgsql SECURITY DEFINER SET timezone = 'UTC' AS $$
BEGIN
  PERFORM pg_advisory_xact_lock(4711);
  INSERT INTO prove.changes (table_name, before, after)
  VALUES (format('%I.%I', TG_TABLE_SCHEMA, TG_TABLE_NAME), CASE WHEN TG_OP <> 'INSERT' THEN OLD::text END,
          CASE WHEN TG_OP <> 'DELETE' THEN NEW::text END);
  RETURN NULL;
END $$;

CREATE FUNCTION prove.watch() RETURNS event_trigger LANGUAGE plpgsql AS $$
DECLARE made record;
BEGIN
  FOR made IN SELECT objid FROM pg_event_trigger_ddl_commands()
              WHERE command_tag = 'CREATE TABLE' AND schema_name = 'platform' LOOP
    EXECUTE format('CREATE TRIGGER aaa_noted AFTER INSERT OR UPDATE OR DELETE ON %s FOR EACH ROW '
                   'EXECUTE FUNCTION prove.note()', made.objid::regclass);
  END LOOP;
END $$;
CREATE EVENT TRIGGER prove_watch ON ddl_command_end WHEN TAG IN ('CREATE TABLE') EXECUTE FUNCTION prove.watch();

CREATE FUNCTION prove.exchange(table_name text, old_row text, new_row text) RETURNS void LANGUAGE plpgsql AS $$
DECLARE removed bigint;
BEGIN
  IF old_row IS NOT NULL THEN
    EXECUTE format('DELETE FROM %s WHERE ctid = (SELECT x.ctid FROM %s x WHERE x::text = $1 LIMIT 1)', table_name,
                   table_name) USING old_row;
    GET DIAGNOSTICS removed = ROW_COUNT;
    IF removed <> 1 THEN
      RAISE EXCEPTION '% has no row %', table_name, old_row;
    END IF;
  END IF;
  IF new_row IS NOT NULL THEN
    EXECUTE format('INSERT INTO %s OVERRIDING SYSTEM VALUE SELECT ($1::%s).*', table_name, table_name) USING new_row;
  END IF;
END $$;

CREATE FUNCTION prove.go_to(moment bigint) RETURNS void LANGUAGE plpgsql
SET timezone = 'UTC' SET session_replication_role = 'replica' AS $$
DECLARE
  here bigint := (SELECT seq FROM prove.place);
  c record;
BEGIN
  FOR c IN SELECT * FROM prove.changes WHERE seq > here AND seq <= moment ORDER BY seq LOOP
    PERFORM prove.exchange(c.table_name, c.before, c.after);
  END LOOP;
  FOR c IN SELECT * FROM prove.changes WHERE seq > moment AND seq <= here ORDER BY seq DESC LOOP
    PERFORM prove.exchange(c.table_name, c.after, c.before);
  END LOOP;
  UPDATE prove.place SET seq = moment;
END $$;

CREATE FUNCTION prove.rows() RETURNS text LANGUAGE plpgsql STABLE SET timezone = 'UTC' AS $$
DECLARE
  table_name text;
  part text;
  whole text := '';
BEGIN
  FOR table_name IN SELECT oid::regclass::text FROM pg_class
                    WHERE relnamespace = to_regnamespace('platform') AND relkind = 'r' ORDER BY 1 LOOP
    EXECUTE format('SELECT string_agg(x::text, chr(10) ORDER BY x::text) FROM %s x', table_name) INTO part;
    whole := whole || table_name || ': ' || coalesce(part, '') || chr(10);
  END LOOP;
  RETURN whole;
END $$;
)";

constexpr const char* kForgetNotes = "TRUNCATE prove.changes RESTART IDENTITY; UPDATE prove.place SET seq = 0";

// A commit as the trace tells of it.
struct Commit {
  std::size_t sent = 0;  // positions
  std::size_t answered = 0;
  std::int64_t last_change = 0;
};

std::string SentLine(int process, int number) {
  return "sent " + std::to_string(process) + " " + std::to_string(number);
}

std::string CommittedLine(int process, int number, std::int64_t last_change) {
  return "committed " + std::to_string(process) + " " + std::to_string(number) + " " + std::to_string(last_change);
}

std::vector<Commit> ReadCommits(const CTrace& trace) {
  std::vector<Commit> commits;
  std::map<std::pair<int, int>, std::size_t> sent;
  const std::vector<Record>& records = trace.GetRecords();
  for (std::size_t position = 0; position < records.size(); ++position) {
    if (records[position].head.kind != ERecord::kMark) {
      continue;
    }
    std::istringstream line{std::string(records[position].name)};
    std::string what;
    std::pair<int, int> message;
    line >> what >> message.first >> message.second;
    if (what == "sent") {
      sent[message] = position;
    } else if (what == "committed") {
      const auto begin = sent.find(message);
      Commit commit = {begin == sent.end() ? position : begin->second, position, 0};
      line >> commit.last_change;
      commits.push_back(commit);
    }
  }
  return commits;
}

// Looks and settings change no row.
bool MayChangeRows(std::string_view message) {
  const std::string_view tag = message.substr(std::min<std::size_t>(5, message.size()));
  const auto begins = [tag](std::string_view word) { return tag.rfind(word, 0) == 0; };
  return !begins("SELECT") && !begins("SET") && !begins("BEGIN") && !begins("SHOW") && !begins("LISTEN");
}

}  // namespace

CRowHistory::CRowHistory(std::string name) : name_(std::move(name)), server_(CPostgresServer::Shared()) {}
CRowHistory::~CRowHistory() = default;

void CRowHistory::MakeDatabase(const std::string& name, const std::string& from) {
  server_.Run("DROP DATABASE IF EXISTS " + name + " WITH (FORCE)", "postgres");
  server_.Run("CREATE DATABASE " + name + " OWNER tansy" + (from.empty() ? "" : " TEMPLATE " + from), "postgres");
}

std::string CRowHistory::BeginRecording(CTraceMarks& marks, const std::string& from, bool answers_early) {
  marks_ = &marks;
  begins_empty_ = from.empty();
  answers_early_ = answers_early;
  links_.clear();
  held_.clear();
  MakeDatabase(CPostgresServer::kDatabase, from);
  server_.Run(from.empty() ? kNotes : kForgetNotes);
  MakeDatabase(name_ + "_empty", CPostgresServer::kDatabase);
  proxy_ = std::make_unique<CPostgresProxy>(server_);
  proxy_->SetHook([this](const CPostgresProxy::Passing& passing) {
    if (passing.kind == 'E' || passing.kind == 'Q') {
      NoteSent(passing.server_process);
    }
    return CPostgresProxy::EThen::kPass;
  });
  proxy_->SetAnswerHook([this](const CPostgresProxy::Passing& passing) {
    NoteAnswer(passing.server_process, passing.kind, passing.text);
  });
  return proxy_->Url();
}

void CRowHistory::NoteSent(int process) {
  const std::lock_guard lock(mutex_);
  marks_->Write(SentLine(process, ++links_[process].sent));
}

// The program hears of its commit behind this.
void CRowHistory::NoteAnswer(int process, char kind, std::string_view message) {
  const std::lock_guard lock(mutex_);
  Link& link = links_[process];
  if (kind == 'C') {
    link.may_have_changed = link.may_have_changed || MayChangeRows(message);
  }
  if (kind != 'Z' || message.back() != 'I' || !std::exchange(link.may_have_changed, false)) {
    return;
  }
  std::string line = CommittedLine(process, link.sent, LastChange());
  if (answers_early_) {
    line.swap(held_);
  }
  if (!line.empty()) {
    marks_->Write(line);
  }
}

std::int64_t CRowHistory::LastChange() {
  const std::vector<std::string> rows = server_.Rows("SELECT coalesce(max(seq), 0) FROM prove.changes");
  return rows.empty() ? 0 : std::stoll(rows.front());
}

void CRowHistory::WaitForLastCommit() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const std::string others = std::string("datname = '") + CPostgresServer::kDatabase + "'";
  while (server_.EndConnections(others) > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  marks_->Write(CommittedLine(0, 0, LastChange()));
}

void CRowHistory::EndRecording() {
  proxy_.reset();
  WaitForLastCommit();
  MakeDatabase(name_, CPostgresServer::kDatabase);
  server_.Run("UPDATE prove.place SET seq = (SELECT coalesce(max(seq), 0) FROM prove.changes)", name_);
}

std::vector<std::int64_t> CRowHistory::MomentsOf(const CTrace& trace) {
  std::set<std::int64_t> moments;
  for (const Commit& commit : ReadCommits(trace)) {
    moments.insert(commit.last_change);
  }
  moments.erase(0);
  return {moments.begin(), moments.end()};
}

std::int64_t CRowHistory::PickMoment(const CTrace& trace, std::size_t position, std::mt19937_64& random) {
  std::int64_t least = 0;
  std::int64_t most = 0;
  for (const Commit& commit : ReadCommits(trace)) {
    if (commit.answered < position) {
      least = std::max(least, commit.last_change);
    } else if (commit.sent < position) {
      most = std::max(most, commit.last_change);
    }
  }
  return random() % 2 == 0 ? least : std::max(least, most);
}

// Tables are not made and removed as rows are: where there were none at the beginning, there are none before the first
// change.
void CRowHistory::MakeState(std::int64_t moment) {
  const bool is_without_tables = moment == 0 && begins_empty_;
  if (!is_without_tables) {
    GoTo(moment);
  }
  MakeDatabase(kState, is_without_tables ? name_ + "_empty" : name_);
}

std::string CRowHistory::GetStateUrl() const {
  return server_.Url("", kState);
}

void CRowHistory::GoTo(std::int64_t moment) {
  server_.Run("SELECT prove.go_to(" + std::to_string(moment) + ")", name_);
}

std::string CRowHistory::RowsAt(std::int64_t moment) {
  GoTo(moment);
  const std::vector<std::string> rows = server_.Rows("SELECT prove.rows()", name_);
  return rows.empty() ? "" : rows.front();
}

std::pair<std::int64_t, std::string> CRowHistory::LookNow() {
  const std::vector<std::string> rows =
      server_.Rows("SELECT (SELECT coalesce(max(seq), 0) FROM prove.changes), prove.rows()");
  const std::string row = rows.empty() ? "0|" : rows.front();
  return {std::stoll(row), row.substr(row.find('|') + 1)};
}

void CRowHistory::Save(const std::string& path) {
  server_.Dump(name_, path);
}

void CRowHistory::Load(const std::string& path) {
  begins_empty_ = true;
  MakeDatabase(name_ + "_empty", "");
  server_.Run(kNotes, name_ + "_empty");
  MakeDatabase(name_, "");
  server_.Load(path, name_);
}

}  // namespace prove
