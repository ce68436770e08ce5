// applications.conf: the settings that an operator gives to applications, and the stamps under which agents know them.
#pragma once

#include "facts/wire.h"

#include <sys/stat.h>

namespace quorbit {

struct Applications {
	int64_t store_mb = 512;                  // size bound of the store, without events of thread profiles
	int64_t profile_mb = 64;                 // size bound of these
	int64_t sums_mb = 256;                   // size bound of the sums by minute and hour
	int64_t minute_days = 3, hour_days = 90; // how long these are kept
	// Where all of it is sent as well, "" for nowhere (docs/fleet.md).
	std::string store_url, store_password_file;
	std::string host_name;      // under which, "" for the host's own
	std::string cluster;        // of the servers there, "" for none
	int64_t store_seconds = 10; // between batches
	int64_t otlp_seconds = 5;
	// Where spans and metrics go (docs/otlp.md), "" for nowhere.
	std::string otlp_url, otlp_headers, otlp_format = "protobuf", otlp_send = "all", otlp_functions = "yes";
	std::string metrics_listen;                            // where Prometheus finds /metrics, "" for nowhere
	int64_t board_slots = 1024;                            // threads that run PHP which the board has room for
	std::map<std::string, Settings, std::less<>> sections; // by application name; "*" is the default
	std::vector<std::string> problems; // for the log: "line 3: ...", the first ten and how many more there are
};

// Reads the file's text; a byte order mark is no part of it. A line that cannot be understood becomes a problem and is
// skipped.
Applications parse_applications(std::string_view text);

// The settings of one application: what this daemon asks for by itself, overlaid by the default section and by its own.
Settings settings_of(const Applications &applications, std::string_view application);

// The stamp of these settings: it changes with any of them and is never 0.
uint64_t stamp_of(const Settings &settings);

// The file, read again whenever it has changed.
class ApplicationsFile {
public:
	explicit ApplicationsFile(std::string path) : path_(std::move(path)) {}

	// The file's present content; logs what is wrong with it once per change. A missing file counts as empty; one that
	// cannot be read leaves what was known before, and is tried again when only descriptors were short.
	const Applications &current();

private:
	void reload();

	std::string path_;
	Applications applications_;
	struct stat seen_ = {};
	bool told_to_wait_ = false; // for descriptors
};

} // namespace quorbit
