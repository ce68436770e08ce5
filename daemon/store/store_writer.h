// The thread that writes the store: a slow disk must never keep an agent waiting.
#pragma once

#include "base/log.h"
#include "base/shares.h"
#include "store/backlog.h"
#include "store/store.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <variant>

namespace quorbit {

// Why a packet was not stored, or not in full: kept in the store with the application and the minute.
constexpr const char *dropped_backlog_full = "backlog full";
constexpr const char *dropped_to_head = "overload: stored without trace and texts";

class StoreWriter {
public:
	// Starts the thread, which opens the store; profile orders found there go to `sessions`, which must outlive this
	// object. A store that cannot be opened or written is logged once and tried again twice a second; what comes
	// meanwhile waits in the backlog.
	StoreWriter(std::string path, ProfileSessions &sessions);
	~StoreWriter(); // writes what can be written within four seconds, and logs how much could not

	// Hands over a packet or query. It is committed within 200 ms. Once 32 MiB wait, an action of an account that has
	// 4 MiB of them is cut to what its sums are made of; beyond its sender's share of 64 MiB it is dropped. Both are
	// counted.
	void put(StoredPacket packet, const Sender &sender = {});
	void put(StoredQuery query, const Sender &sender = {});

	// Ends the thread as the destructor does. False when it has not ended after so long: a disk holds it up, and would
	// hold up the destructor. unwritten() says how much it still has.
	bool end(std::chrono::milliseconds most);
	int64_t unwritten() const;

	// Counts packets of an application that came to nothing, or were cut, for one of the reasons above. Any thread.
	void count_dropped(std::string_view application, const char *reason, int64_t count = 1);

	// Keeps in the store how far it has been sent, within half a second. Any thread.
	void put(const ExportState &state)
	{
		std::lock_guard lock(mutex_);
		export_state_ = state;
	}
	void put(const OtlpState &state)
	{
		std::lock_guard lock(mutex_);
		otlp_state_ = state;
	}

	void set_bounds(const StoreBounds &bounds)
	{
		std::lock_guard lock(mutex_);
		bounds_ = bounds;
	}

private:
	using Item = std::variant<StoredPacket, StoredQuery>;
	struct Waiting {
		Item item;
		Sender sender;
		size_t bytes;
	};
	using Batch = std::vector<Waiting>;
	using Dropped = std::map<std::pair<std::string, const char *>, int64_t>; // by application and reason
	using Clock = std::chrono::steady_clock;
	static size_t bytes_of(const Item &item);
	void enqueue(Item item, const Sender &sender);
	void add_dropped(std::string_view application, const char *reason, int64_t count);
	void stop();
	void run();
	bool wait_until_due();
	void work(bool due);
	void finish();
	void write_batch(Clock::time_point deadline);
	void write_transaction();
	void written();
	void write_dropped();
	void write_export_states();
	template <typename State>
	void write_state(std::optional<State> &waiting);
	bool keep_bounds();
	bool leave_readers_behind();
	bool open_when_due();
	void exchange_orders();
	void sample_host();
	void failed(const SqliteError &failure);
	StoreBounds bounds() const
	{
		std::lock_guard lock(mutex_);
		return bounds_;
	}

	const std::string path_;
	ProfileSessions &sessions_;
	std::atomic<bool> stopping_ = false;

	mutable std::mutex mutex_;
	std::condition_variable arrived_;
	StoreBounds bounds_;
	Backlog<Waiting> queue_;
	Clock::time_point first_arrival_; // of the queue, since it was empty
	Shares held_;                     // queue and batch
	int64_t held_items_ = 0;
	int64_t dropped_ = 0;                     // packets and queries that nobody can get back
	Dropped dropped_by_;                      // what the store is still to be told
	std::optional<ExportState> export_state_; // the same
	std::optional<OtlpState> otlp_state_;

	// The thread's own.
	Dropped telling_; // what it has been told in a transaction that is not committed
	Batch batch_;     // taken from the queue; stays until it is written
	size_t next_ = 0; // its first item that is not
	std::unique_ptr<Store> store_;
	uint64_t inode_ = 0;
	bool failing_ = false;
	bool maintaining_ = false; // the bounds want more steps
	bool confined_ = false;    // the log has said that the store does not grow
	Clock::time_point retry_at_, small_until_, sample_at_{};
	HostSampler sampler_;
	Clock::duration write_time_{};
	int64_t lost_ = 0;
	LogLimit lost_log_;
	std::promise<void> end_;
	const std::future<void> ended_ = end_.get_future();
	std::thread thread_;
};

} // namespace quorbit
