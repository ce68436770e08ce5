// Calls into SQLite, with its codes turned into exceptions.
#include "store/sqlite.h"

namespace quorbit {

Database::Database(const std::string &path, Mode mode) : path_(path)
{
	constexpr int flags[] = {SQLITE_OPEN_READONLY, SQLITE_OPEN_READWRITE, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE};
	sqlite3 *handle = nullptr;
	int code = sqlite3_open_v2(path.c_str(), &handle, flags[static_cast<int>(mode)] | SQLITE_OPEN_NOMUTEX, nullptr);
	handle_.reset(handle);
	if (code != SQLITE_OK)
		throw SqliteError(path + ": " + (handle ? sqlite3_errmsg(handle) : sqlite3_errstr(code)), code);
	sqlite3_busy_timeout(handle, busy_ms);
	// Whatever a file of somebody else holds: no functions of its own, no rewriting of SQLite's tables.
	sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
	sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

void Database::execute(const char *sql)
{
	int code = sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr);
	if (code != SQLITE_OK) throw SqliteError(sqlite3_errmsg(handle_.get()), code);
}

int64_t Database::integer(const char *sql)
{
	Statement statement(*this, sql);
	return statement.step() ? statement.integer(0) : 0;
}

Statement::Statement(Database &database, const std::string &sql) : database_(database.handle())
{
	sqlite3_stmt *handle = nullptr;
	check(sqlite3_prepare_v2(database_, sql.data(), static_cast<int>(sql.size()), &handle, nullptr));
	handle_.reset(handle);
}

void Statement::check(int code)
{
	if (code != SQLITE_OK) throw SqliteError(sqlite3_errmsg(database_), code);
}

Statement &Statement::bind(int parameter, int64_t value)
{
	check(sqlite3_bind_int64(handle_.get(), parameter, value));
	return *this;
}

Statement &Statement::bind(int parameter, std::string_view text)
{
	check(sqlite3_bind_text64(handle_.get(), parameter, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8));
	return *this;
}

Statement &Statement::bind_blob(int parameter, std::string_view bytes)
{
	check(sqlite3_bind_blob64(handle_.get(), parameter, bytes.data(), bytes.size(), SQLITE_STATIC));
	return *this;
}

bool Statement::step()
{
	int code = sqlite3_step(handle_.get());
	if (code == SQLITE_ROW) return true;
	if (code == SQLITE_DONE) return false;
	std::string message = sqlite3_errmsg(database_);
	sqlite3_reset(handle_.get());
	throw SqliteError(message, code);
}

void Statement::reset()
{
	sqlite3_reset(handle_.get());
	sqlite3_clear_bindings(handle_.get());
}

void Statement::run()
{
	step();
	reset();
}

std::string Statement::text(int column)
{
	const void *bytes = sqlite3_column_blob(handle_.get(), column);
	auto length = static_cast<size_t>(sqlite3_column_bytes(handle_.get(), column));
	return bytes ? std::string(static_cast<const char *>(bytes), length) : std::string();
}

} // namespace quorbit
