// The thread that sends what the daemon stores to the store of a fleet: actions in the order of their numbers every
// some seconds, sums every sixth time. The store is its queue: what has not arrived is sent when the server is back, as
// far as the store still has it. It reads through a connection of its own, and nothing that agents wait for waits for
// it.
#pragma once

#include "base/log.h"
#include "export/export_rows.h"
#include "export/sending_thread.h"
#include "store/store_writer.h"

#include <optional>

namespace quorbit {

// Where to, as the operator gives it (docs/fleet.md).
struct ExportSettings {
	std::string url; // "" for nowhere
	std::string password_file;
	std::string host_name; // "" for the host's own
	int64_t seconds = 10;  // between batches

	bool operator==(const ExportSettings &) const = default;
};

class Exporter {
public:
	// Starts the thread, which waits for settings. `writer`, which keeps how far it has come, must outlive this object.
	Exporter(std::string store_path, StoreWriter &writer);

	// Any thread.
	void set_settings(const ExportSettings &settings) { thread_.set_settings(settings); }
	// Ends the thread. False when it has not ended after so long: a disk holds it up, and would hold up the destructor.
	bool end(std::chrono::milliseconds most) { return thread_.end(most); }

private:
	using Clock = SendingThread<ExportSettings>::Clock;
	// From the connection to the server until something fails.
	struct Session {
		Session(StoreUrl url, const std::string &host, const std::atomic<bool> *stopping);
		ClickHouse server;
		ExportSource source;
		std::set<int64_t> arrived; // actions beyond those known to have arrived, up to arrived_until
		int64_t arrived_until = 0;
	};

	void run();
	bool wait_until_due();
	void work();
	bool follow_store();
	void open_session();
	void see_what_arrived();
	void send_actions();
	void send_sums();
	void failed(const std::string &why);
	void keep(const ExportState &state);

	const std::string path_;
	StoreWriter &writer_;

	// The thread's own.
	ExportSettings settings_;
	std::optional<FollowedStore> store_;
	int64_t identity_ = 0; // of the store
	ExportState state_, kept_;
	std::optional<Session> session_;
	Clock::time_point due_{}, sums_due_{};
	std::chrono::seconds pause_{}; // after a failure
	SendingThread<ExportSettings> thread_;
};

} // namespace quorbit
