// bench_settings STACK load|save KEYS SECONDS: one of so many keys read, or saved with the value
// that it has.
#include <sqlite3.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "Bench.h"
#include "util/PersistentConfig.h"

using hvn::util::PersistentConfig;

namespace {

constexpr char kFile[] = "/data/persistent_data.conf";
constexpr char kDatabase[] = "/data/bench.db";

std::string Key(int i) { return "setting_" + std::to_string(100000 + i); }
std::string Value(int i) { return "value " + std::to_string(i); }

/// Each call asks for another key, so that their places in the file even out.
class Keys {
 public:
  explicit Keys(int count) : count_(count) {}
  int Next() { return at_ = (at_ + 7919) % count_; }

 private:
  int count_;
  int at_ = 0;
};

void WriteFile(int count) {
  std::ofstream file(kFile);
  for (int i = 0; i < count; ++i) file << Key(i) << "=!=%=" << Value(i) << '\n';
}

sqlite3* MakeDatabase(int count) {
  sqlite3* db = nullptr;
  unlink(kDatabase);
  sqlite3_open(kDatabase, &db);
  sqlite3_exec(db, "CREATE TABLE settings (key TEXT PRIMARY KEY, value TEXT) WITHOUT ROWID; BEGIN",
               nullptr, nullptr, nullptr);
  for (int i = 0; i < count; ++i) {
    const std::string row = "INSERT INTO settings VALUES ('" + Key(i) + "', '" + Value(i) + "')";
    if (sqlite3_exec(db, row.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) Fail("insert");
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  return db;
}

void MeasureSqlite(bool load, int count, double seconds) {
  sqlite3* const db = MakeDatabase(count);
  sqlite3_stmt* statement = nullptr;
  const char* const text = load ? "SELECT value FROM settings WHERE key = ?1"
                                : "INSERT INTO settings VALUES (?1, ?2) ON CONFLICT DO UPDATE SET "
                                  "value = excluded.value WHERE value <> excluded.value";
  sqlite3_prepare_v2(db, text, -1, &statement, nullptr);
  Keys keys(count);
  ReportCalls(seconds, [&] {
    const int i = keys.Next();
    const std::string key = Key(i);
    const std::string value = Value(i);
    sqlite3_bind_text(statement, 1, key.c_str(), -1, SQLITE_STATIC);
    if (!load) sqlite3_bind_text(statement, 2, value.c_str(), -1, SQLITE_STATIC);
    const int status = sqlite3_step(statement);
    if (load ? status != SQLITE_ROW ||
                   value != reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))
             : status != SQLITE_DONE) {
      Fail("sqlite3_step");
    }
    sqlite3_reset(statement);
  });
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

void MeasureHutil(bool load, int count, double seconds) {
  Keys keys(count);
  ReportCalls(seconds, [&] {
    const int i = keys.Next();
    if (load ? PersistentConfig::LoadData(Key(i)) != Value(i)
             : PersistentConfig::SaveData(Key(i), Value(i)) != hvn::kSuccess) {
      Fail("a wrong value");
    }
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string stack = argv[1];
  const bool load = std::string(argv[2]) == "load";
  const int count = atoi(argv[3]);
  const double seconds = atof(argv[4]);
  setlogmask(LOG_UPTO(LOG_NOTICE));
  alarm(120);
  RequireIsolation();
  WriteFile(count);
  if (stack == "hutil") MeasureHutil(load, count, seconds);
  if (stack == "sqlite3") MeasureSqlite(load, count, seconds);
  if (stack == "read") ReportCalls(seconds, [] { ReadWhole(kFile); });
}
