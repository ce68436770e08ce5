// The thread that writes the store: a slow disk must never keep an agent waiting.
#pragma once

#include "base/log.h"
#include "store/store.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <thread>
#include <variant>

namespace quorbit {

class StoreWriter {
public:
	// Starts the thread, which opens the store; profile orders found there go to `sessions`, which must outlive this
	// object. A store that cannot be opened or written is logged once and tried again later, packets being lost
	// meanwhile.
	StoreWriter(std::string path, ProfileSessions &sessions);
	~StoreWriter(); // writes what is left and ends the thread

	// Hands over a packet or query. It is committed within 200 ms; beyond 64 MiB of backlog it is dropped and counted.
	void put(StoredPacket packet);
	void put(StoredQuery query);

	void set_bounds(const StoreBounds &bounds)
	{
		action_bytes_ = bounds.action_bytes;
		event_bytes_ = bounds.event_bytes;
	}

private:
	using Item = std::variant<StoredPacket, StoredQuery>;
	using Batch = std::vector<Item>;
	void enqueue(Item item, size_t bytes);
	void run();
	bool wait_for_batch(Batch &batch);
	bool write(const Batch &batch);
	Batch::const_iterator write_transaction(Batch::const_iterator next, Batch::const_iterator end);
	bool open_when_due();
	void exchange_orders();
	void failed(const std::string &what);

	const std::string path_;
	ProfileSessions &sessions_;
	std::atomic<int64_t> action_bytes_ = StoreBounds().action_bytes, event_bytes_ = StoreBounds().event_bytes;

	std::mutex mutex_;
	std::condition_variable arrived_;
	Batch queue_;
	size_t queued_bytes_ = 0;
	int64_t dropped_ = 0;
	std::atomic<bool> stopping_ = false;

	// The thread's own.
	std::unique_ptr<Store> store_;
	bool failing_ = false;
	int64_t lost_ = 0;
	LogLimit lost_log_;
	int64_t retry_second_ = 0;
	uint64_t inode_ = 0;
	std::thread thread_;
};

} // namespace quorbit
