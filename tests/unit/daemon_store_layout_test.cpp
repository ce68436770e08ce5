// The store's layout: every store out there can be brought to the newest one, and nobody changes it in passing.
#include "daemon_records.h"
#include "store/layout.h"
#include "store/sqlite_reader.h"
#include "store/store.h"

#include <gtest/gtest.h>

using namespace quorbit;
using namespace quorbit_test;

class LayoutTest : public testing::Test {
 protected:
  // A store that a daemon of layout 1 made: three actions, two profile events, two applications.
  void keep_first_layout() {
    std::filesystem::copy_file(std::filesystem::path(__FILE__).parent_path() / "data/layout_1.db", path_);
  }
  static std::string schema_of(const std::string& path) {
    Database database(path, Database::Mode::read_write);
    Statement select(database, "SELECT ifnull(sql, name) FROM sqlite_schema ORDER BY name");
    std::string all;
    while (select.step()) all += select.text(0) + "\n";
    return all;
  }
  int64_t version() { return Database(path_, Database::Mode::read_write).integer("PRAGMA user_version"); }
  // What opening the store for writing says against it.
  std::string refusal() {
    try {
      Store store(path_);
    } catch (const SqliteError& failure) {
      return failure.what();
    }
    return "";
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/quorbit.db";
};

TEST_F(LayoutTest, ReleasedMigrationsStayAsTheyAre) {
  // Changed a table? Add a migration to layout.cpp, and its line here; a line that is here already stays.
  constexpr std::pair<int64_t, uint64_t> released[] = {{1, 16690887696907949603u}, {2, 1914765526298414914u}, {3, 15797793378539041825u},
                                                      {4, 5459219404094624497u}, {5, 13133638539266864803u},
                                                      {6, 4577359810073871993u}, {7, 6848316027112991769u}, {8, 11319043962564992394u},
                                                      {9, 14162968259634256615u}, {10, 4778312524946999394u},
                                                      {11, 4717025803131416054u}, {12, 7813048608868327549u}};
  ASSERT_EQ(migrations().size(), std::size(released));
  for (size_t i = 0; i < std::size(released); i++) {
    const Migration& migration = migrations()[i];
    uint64_t hash = 14695981039346656037u;
    for (char c : std::string_view(migration.sql)) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211u;
    EXPECT_EQ(migration.version, released[i].first);
    EXPECT_EQ(hash, released[i].second) << "the SQL of version " << migration.version << " has changed";
  }
}

TEST_F(LayoutTest, BringsAnOldStoreToTheLayoutOfANewOne) {
  keep_first_layout();
  const std::string fresh = folder_.path() + "/fresh.db";
  Store(fresh, nullptr);
  {
    Store store(path_);
    store.begin();
    store.add(StoredPacket{0x0B, 42, 1, action_body("Shop", "after", 5)});
    store.commit();
  }
  EXPECT_EQ(schema_of(path_), schema_of(fresh));
  auto reader = open_sqlite_reader(path_);
  auto rows = reader->actions({});
  ASSERT_EQ(rows.size(), 4u);
  EXPECT_EQ(rows[0].id, 4);
  EXPECT_EQ(rows[3].database_ms, 40);
  EXPECT_EQ(reader->action(1)->action.error->message, "no stock");
  EXPECT_EQ(reader->applications().size(), 2u);
  int events = 0;
  reader->each_profile_event({"Shop", {}}, [&](const ProfileEvent&) { events++; });
  EXPECT_EQ(events, 2);
}

TEST_F(LayoutTest, AnInterruptedUpgradeGoesOnLater) {
  keep_first_layout();
  Database(path_, Database::Mode::read_write).execute(R"sql(
    WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 60000)
    INSERT INTO profile_order (application, seconds, ordered_ms) SELECT 'Shop', i, i FROM n)sql");
  std::atomic<bool> stopping = true;
  EXPECT_THROW(Store(path_, &stopping), SqliteError);
  EXPECT_EQ(version(), 1);
  stopping = false;
  Store(path_, &stopping);
  EXPECT_EQ(version(), newest_layout());
}

TEST_F(LayoutTest, RefusesStoresOfANewerLayoutAndHalfMadeOnes) {
  Store(path_, nullptr);
  const std::pair<const char*, const char*> cases[] = {
      {"PRAGMA user_version = 99", "layout 99 is of a newer quorbit"}, {"PRAGMA user_version = 0", "already exists"}};
  for (const auto& [change, words] : cases) {
    Database(path_, Database::Mode::read_write).execute(change);
    EXPECT_NE(refusal().find(words), std::string::npos) << refusal();
    EXPECT_THROW(open_sqlite_reader(path_), SqliteError) << change;
  }
}

TEST_F(LayoutTest, IsMadeAsAWholeOrNotAtAll) {
  Database(path_, Database::Mode::create).execute("CREATE TABLE export (what)");       // which the last steps make
  EXPECT_NE(refusal().find("already exists"), std::string::npos) << refusal();
  EXPECT_EQ(version(), 0);
  Database store(path_, Database::Mode::read_write);
  EXPECT_EQ(store.integer("SELECT count(*) FROM sqlite_master"), 1);
}

TEST_F(LayoutTest, TheCommandLineSaysWhatAnOldStoreNeeds) {
  keep_first_layout();
  try {
    open_sqlite_reader(path_);
    FAIL() << "it was read";
  } catch (const SqliteError& failure) {
    EXPECT_NE(std::string(failure.what()).find("restart the daemon, which brings it up to date"), std::string::npos);
  }
}
