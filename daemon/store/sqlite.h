// SQLite with its handles owned: as much of it as the store needs.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace quorbit {

struct SqliteError : std::runtime_error {
	// `code` is SQLite's own, as far as it was SQLite that failed.
	explicit SqliteError(const std::string &what, int code = SQLITE_ERROR) : std::runtime_error(what), code(code) {}
	const int code;
};

class Database {
public:
	static constexpr int busy_ms = 2000; // what is waited for the locks of others
	enum class Mode { read_only, read_write, create };

	// Opens the file; Mode::create makes one that is missing. Waits up to two seconds for the locks of others. Throws
	// SqliteError.
	Database(const std::string &path, Mode mode);

	// Runs statements that return no rows. Throws SqliteError.
	void execute(const char *sql);

	// The first column of the first row, 0 when there is none. Throws SqliteError.
	int64_t integer(const char *sql);

	// The id of the row inserted last.
	int64_t last_id() const { return sqlite3_last_insert_rowid(handle_.get()); }
	const std::string &path() const { return path_; }
	sqlite3 *handle() const { return handle_.get(); }

private:
	struct Closer {
		void operator()(sqlite3 *handle) const { sqlite3_close_v2(handle); }
	};
	std::string path_;
	std::unique_ptr<sqlite3, Closer> handle_;
};

// A prepared statement; parameters and columns are counted as SQLite counts them, from 1 and from 0. Every call throws
// SqliteError on failure.
class Statement {
public:
	Statement(Database &database, const std::string &sql);

	// Texts and blobs are borrowed until the statement is run; all parameters stay until the next reset().
	Statement &bind(int parameter, int64_t value);
	Statement &bind(int parameter, std::string_view text);
	Statement &bind_blob(int parameter, std::string_view bytes);

	bool step();  // true when there is a row
	void reset(); // ready to be bound and run again
	void run();   // step() and reset()

	bool is_null(int column) { return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL; }
	int64_t integer(int column) { return sqlite3_column_int64(handle_.get(), column); }
	std::string text(int column); // the bytes of a text or blob

private:
	void check(int code);
	struct Finalizer {
		void operator()(sqlite3_stmt *handle) const { sqlite3_finalize(handle); }
	};
	sqlite3 *database_;
	std::unique_ptr<sqlite3_stmt, Finalizer> handle_;
};

} // namespace quorbit
