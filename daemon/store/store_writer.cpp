// Batching, retrying and the bound of the backlog.
#include "store/store_writer.h"

#include "base/log.h"
#include "base/clock.h"

#include <chrono>
#include <sys/stat.h>
#include <utility>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr size_t most_queued_bytes = size_t{64} << 20;
constexpr size_t most_transaction_bytes = size_t{8} << 20;
constexpr auto batch_time = 100ms; // what is waited for company before a commit
constexpr auto idle_time = 250ms;  // between looks at the profile orders, which end within a second
constexpr int64_t retry_seconds = 1;

// The file's inode, 0 when there is none.
uint64_t inode_of(const std::string &path)
{
	struct stat status;
	return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

} // namespace

StoreWriter::StoreWriter(std::string path, ProfileSessions &sessions) : path_(std::move(path)), sessions_(sessions)
{
	thread_ = std::thread([this] { run(); });
}

StoreWriter::~StoreWriter()
{
	{
		std::lock_guard lock(mutex_);
		stopping_ = true;
	}
	arrived_.notify_one();
	thread_.join();
}

void StoreWriter::put(StoredPacket packet)
{
	size_t bytes = sizeof(Item) + packet.body.size();
	enqueue(std::move(packet), bytes);
}

void StoreWriter::put(StoredQuery query)
{
	size_t bytes =
		sizeof(Item) + query.given.size() + query.application.size() + query.sapi.size() + query.php_version.size();
	enqueue(std::move(query), bytes);
}

void StoreWriter::enqueue(Item item, size_t bytes)
{
	bool first;
	{
		std::lock_guard lock(mutex_);
		if (queued_bytes_ + bytes > most_queued_bytes) {
			dropped_++;
			return;
		}
		first = queue_.empty();
		queue_.push_back(std::move(item));
		queued_bytes_ += bytes;
	}
	if (first) arrived_.notify_one();
}

// Fills the batch with what has come; empty after idle_time without anything. False when the thread is to end.
bool StoreWriter::wait_for_batch(Batch &batch)
{
	std::unique_lock lock(mutex_);
	arrived_.wait_for(lock, idle_time, [this] { return stopping_ || !queue_.empty(); });
	if (!queue_.empty())
		arrived_.wait_for(lock, batch_time, [this] { return stopping_ || queued_bytes_ > most_queued_bytes / 4; });
	batch.clear();
	std::swap(batch, queue_);
	queued_bytes_ = 0;
	lost_ += std::exchange(dropped_, 0);
	return !stopping_;
}

void StoreWriter::run()
{
	Batch batch;
	open_when_due();
	for (bool running = true; running;) {
		running = wait_for_batch(batch);
		bool written = open_when_due() && write(batch);
		if (!written) lost_ += static_cast<int64_t>(batch.size());
		if (!written || lost_ == 0) continue;
		lost_log_.message(LogLevel::warning, std::to_string(lost_) + " packets and queries were not stored");
		lost_ = 0;
	}
}

bool StoreWriter::open_when_due()
{
	// A store that was moved or deleted under us would go on growing unseen.
	if (store_ && inode_of(path_) != inode_) store_.reset();
	if (store_) return true;
	if (failing_ && monotonic_second() < retry_second_) return false;
	try {
		store_ = std::make_unique<Store>(path_, &stopping_);
		inode_ = inode_of(path_);
		return true;
	} catch (const SqliteError &failure) {
		failed(failure.what());
		return false;
	}
}

bool StoreWriter::write(const Batch &batch)
{
	try {
		exchange_orders();
		for (auto next = batch.begin(); next != batch.end();) next = write_transaction(next, batch.end());
		while (store_->maintain({action_bytes_, event_bytes_})) continue;
		if (std::exchange(failing_, false)) log_message(LogLevel::info, "the store works again");
		return true;
	} catch (const SqliteError &failure) {
		failed(failure.what());
		return false;
	}
}

// Writes items until the transaction is large enough for the log that holds it; returns the first that it left.
StoreWriter::Batch::const_iterator StoreWriter::write_transaction(Batch::const_iterator next, Batch::const_iterator end)
{
	store_->begin();
	for (size_t bytes = 0; next != end && bytes < most_transaction_bytes; ++next) {
		std::visit([this](const auto &value) { store_->add(value); }, *next);
		if (auto packet = std::get_if<StoredPacket>(&*next)) bytes += packet->body.size();
	}
	store_->limit_tables();
	store_->commit();
	return next;
}

// Orders out of the store to where queries are answered, and news of their start back.
void StoreWriter::exchange_orders()
{
	for (const ProfileOrder &order : sessions_.take_started()) store_->order_started(order);
	// While there are clients they are looked at each time: one may end.
	if (!store_->changed_by_others() && !store_->has_clients()) return;
	int64_t now_ms = wall_clock_ms();
	sessions_.set_open(store_->open_orders(now_ms), monotonic_second(), now_ms);
}

void StoreWriter::failed(const std::string &what)
{
	if (!failing_) log_message(LogLevel::error, "the store cannot be written: " + what);
	failing_ = true;
	store_.reset();
	retry_second_ = monotonic_second() + retry_seconds;
}

} // namespace quorbit
