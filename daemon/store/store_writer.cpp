// Batching, retrying and the bound of the backlog.
#include "store/store_writer.h"

#include "base/files.h"
#include "base/clock.h"
#include "base/log.h"
#include "facts/share.h"
#include "store/disk.h"

#include <sys/stat.h>
#include <utility>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr size_t most_held_bytes = size_t{64} << 20;
constexpr size_t little_held_bytes = size_t{4} << 20; // of an account: its packets stay whole
constexpr size_t most_transaction_bytes = size_t{8} << 20;
constexpr size_t confined_transaction_bytes = size_t{1} << 20; // what is surely free inside a file that does not grow
constexpr size_t small_transaction_bytes = size_t{256} << 10;  // on a full disk: what the write-ahead log has room for
constexpr int64_t most_bytes_of_full_disk = 64 << 10;          // free, and yet no room for anything
constexpr size_t most_dropped_keys = 1000;
constexpr auto batch_time = 100ms; // what is waited for company before a commit
constexpr auto idle_time = 250ms;  // between looks at the profile orders, which end within a second
constexpr auto retry_time = 500ms;
constexpr auto sample_time = 10s;
constexpr auto small_time = 10s; // after the disk was full
constexpr auto finish_time = 4s;

} // namespace

StoreWriter::StoreWriter(std::string path, ProfileSessions &sessions)
	: path_(std::move(path)), sessions_(sessions), held_(most_held_bytes)
{
	thread_ = std::thread([this] { run(); });
}

StoreWriter::~StoreWriter()
{
	stop();
	thread_.join();
}

void StoreWriter::stop()
{
	{
		std::lock_guard lock(mutex_);
		stopping_ = true;
	}
	arrived_.notify_one();
}

bool StoreWriter::end(std::chrono::milliseconds most)
{
	stop();
	return ended_.wait_for(most) == std::future_status::ready;
}

int64_t StoreWriter::unwritten() const
{
	std::lock_guard lock(mutex_);
	return held_items_;
}

void StoreWriter::put(StoredPacket packet, const Sender &sender)
{
	bool crowded;
	{
		std::lock_guard lock(mutex_);
		crowded = held_.used_bytes() > most_held_bytes / 2 && queue_.bytes_of(sender.account) > little_held_bytes;
	}
	if (crowded && packet.type == record_metric) {
		if (auto head = within_share(packet.body, head_share)) {
			packet.body = std::move(*head);
			count_dropped(application_of(packet.body), dropped_to_head);
		}
	}
	enqueue(std::move(packet), sender);
}

void StoreWriter::put(StoredQuery query, const Sender &sender)
{
	enqueue(std::move(query), sender);
}

size_t StoreWriter::bytes_of(const Item &item)
{
	size_t bytes = sizeof(Waiting);
	if (auto packet = std::get_if<StoredPacket>(&item)) return bytes + packet->body.size();
	const auto &query = std::get<StoredQuery>(item);
	return bytes + query.given.size() + query.application.size() + query.sapi.size() + query.php_version.size();
}

void StoreWriter::enqueue(Item item, const Sender &sender)
{
	size_t bytes = bytes_of(item);
	bool first;
	{
		std::lock_guard lock(mutex_);
		if (!held_.take(sender, bytes)) {
			dropped_++;
			auto packet = std::get_if<StoredPacket>(&item);
			if (packet) add_dropped(application_of(packet->body), dropped_backlog_full, 1);
			return;
		}
		first = queue_.empty();
		if (first) first_arrival_ = Clock::now();
		queue_.put({std::move(item), sender, bytes});
		held_items_++;
	}
	if (first) arrived_.notify_one();
}

void StoreWriter::count_dropped(std::string_view application, const char *reason, int64_t count)
{
	std::lock_guard lock(mutex_);
	add_dropped(application, reason, count);
}

// The mutex is held.
void StoreWriter::add_dropped(std::string_view application, const char *reason, int64_t count)
{
	// Names come from requests: a flood of them is counted in one.
	if (dropped_by_.size() >= most_dropped_keys) application = "(others)";
	dropped_by_[{std::string(application), reason}] += count;
}

// In the transaction that is open: they stay in telling_ until it has been committed.
void StoreWriter::write_dropped()
{
	{
		std::lock_guard lock(mutex_);
		for (const auto &[key, count] : dropped_by_) telling_[key] += count;
		dropped_by_.clear();
	}
	for (const auto &[key, count] : telling_) store_->add_dropped(key.first, key.second, count, wall_clock_ms());
}

template <typename State>
void StoreWriter::write_state(std::optional<State> &waiting)
{
	std::optional<State> state;
	{
		std::lock_guard lock(mutex_);
		state = waiting;
	}
	if (!state) return;
	store_->begin();
	store_->keep(*state);
	store_->commit();
	std::lock_guard lock(mutex_);
	if (waiting == state) waiting.reset();
}

void StoreWriter::write_export_states()
{
	write_state(export_state_);
	write_state(otlp_state_);
}

void StoreWriter::run()
{
	work(false);
	while (!stopping_) work(wait_until_due());
	finish();
	end_.set_value();
}

// Waits until there is a batch to write, or for a look at the orders; not at all while the bounds want work. True when
// there is a batch.
bool StoreWriter::wait_until_due()
{
	std::unique_lock lock(mutex_);
	auto stopping = [this] { return stopping_.load(); };
	lost_ += std::exchange(dropped_, 0);
	if (!batch_.empty()) {
		arrived_.wait_until(lock, retry_at_, stopping);
		return true;
	}
	auto pause = maintaining_ ? 0ms : idle_time;
	if (!arrived_.wait_for(lock, pause, [&] { return stopping() || !queue_.empty(); })) return false;
	auto large = [&] { return stopping() || held_.used_bytes() > most_held_bytes / 4; };
	auto due = first_arrival_ + batch_time;
	if (!maintaining_) arrived_.wait_until(lock, due, large);
	if (!large() && Clock::now() < due) return false;
	batch_ = queue_.take(most_transaction_bytes);
	next_ = 0;
	return !batch_.empty();
}

void StoreWriter::work(bool due)
{
	if (!open_when_due()) return;
	try {
		exchange_orders();
		if (leave_readers_behind()) return;
		if (due) write_batch(Clock::time_point::max());
		if (store_->has_sums_due()) store_->write_sums();
		write_export_states();
		sample_host();
		maintaining_ = keep_bounds();
	} catch (const SqliteError &failure) {
		failed(failure);
	}
}

void StoreWriter::sample_host()
{
	if (Clock::now() < sample_at_) return;
	sample_at_ = Clock::now() + sample_time;
	const HostSample sample = sampler_.take();
	store_->begin();
	store_->add(sample, wall_clock_ms());
	store_->commit();
}

// What is left, as far as the disk takes it.
void StoreWriter::finish()
{
	const auto deadline = Clock::now() + finish_time;
	auto take_all = [this] {
		std::lock_guard lock(mutex_);
		for (Waiting &waiting : queue_.take(SIZE_MAX)) batch_.push_back(std::move(waiting));
		lost_ += std::exchange(dropped_, 0);
	};
	take_all();
	try {
		if (open_when_due()) {
			exchange_orders();
			write_batch(deadline);
			store_->write_sums();
			write_export_states();
		}
	} catch (const SqliteError &failure) {
		failed(failure);
	}
	lost_ += static_cast<int64_t>(batch_.size() - next_);
	if (lost_ == 0) return;
	log_message(LogLevel::warning, std::to_string(lost_) + " packets and queries were not stored before the end");
}

bool StoreWriter::open_when_due()
{
	// A store that was moved or deleted under us would go on growing unseen.
	if (store_ && inode_of(path_) != inode_) store_.reset();
	if (store_) return true;
	if (failing_ && Clock::now() < retry_at_ && !stopping_) return false;
	try {
		store_ = std::make_unique<Store>(path_, &stopping_);
		inode_ = inode_of(path_);
		return true;
	} catch (const SqliteError &failure) {
		failed(failure);
		return false;
	}
}

// What cannot be written stays in the batch.
void StoreWriter::write_batch(Clock::time_point deadline)
{
	const auto begin = Clock::now();
	while (next_ < batch_.size() && Clock::now() < deadline) {
		if (Clock::now() < small_until_) store_->make_room(2 * small_transaction_bytes);
		write_transaction();
		written();
		while (store_->is_confined() && store_->maintain(bounds(), Clock::now() < small_until_)) continue;
	}
	write_time_ = Clock::now() - begin;
	if (next_ < batch_.size()) return;
	batch_.clear();
	next_ = 0;
}

// Writes items until the transaction is large enough for the log that holds it.
void StoreWriter::write_transaction()
{
	const size_t most = Clock::now() < small_until_ ? small_transaction_bytes
		: store_->is_confined()                     ? confined_transaction_bytes
													: most_transaction_bytes;
	size_t next = next_, bytes = 0;
	store_->begin();
	for (; next < batch_.size() && bytes < most; next++) {
		std::visit([this](const auto &value) { store_->add(value); }, batch_[next].item);
		bytes += batch_[next].bytes;
	}
	write_dropped();
	store_->limit_tables();
	store_->commit();
	telling_.clear();
	std::lock_guard lock(mutex_);
	held_items_ -= static_cast<int64_t>(next - next_);
	for (; next_ < next; next_++) held_.give_back(batch_[next_].sender, batch_[next_].bytes);
}

// Told when something has been written, not when the store could be opened.
void StoreWriter::written()
{
	std::string lost = std::to_string(lost_) + " packets and queries were not stored";
	if (std::exchange(failing_, false))
		log_message(LogLevel::info, "the store works again; " + lost + " meanwhile");
	else if (lost_ > 0)
		lost_log_.message(LogLevel::warning, lost);
	lost_ = 0;
}

// Steps towards the bounds, at least one, and for no longer than writing took: packets come first. True when there is
// more to do.
bool StoreWriter::keep_bounds()
{
	const auto end = Clock::now() + write_time_;
	const bool small = Clock::now() < small_until_;
	write_time_ = {};
	bool more;
	const StoreBounds bounds = this->bounds();
	do more = store_->maintain(bounds, small);
	while (more && Clock::now() < end && !stopping_);
	if (std::exchange(confined_, store_->is_confined()) != store_->is_confined())
		log_message(confined_ ? LogLevel::warning : LogLevel::info,
			confined_ ? "the disk is nearly full: the store does not grow, older actions make room for new ones"
					  : "the disk has room again: the store may grow");
	return more;
}

// Where a reader stands still on an old state of the store, the log cannot be emptied: the store then goes on in a
// copy, and the reader keeps the old file for itself. True while nothing is to be written.
bool StoreWriter::leave_readers_behind()
{
	store_->set_log_bytes(bounds().log_bytes);
	if (!store_->is_pinned() || store_->empty_log()) return false;
	if (store_->copy_step()) {
		store_.reset();
		replace_store_by_copy(path_);
		log_message(LogLevel::warning,
			"a command or program has been standing on an old state of the store: it was left behind with it");
		return !open_when_due();
	}
	maintaining_ = true;
	return store_->log_is_full();
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

void StoreWriter::failed(const SqliteError &failure)
{
	if (!failing_) log_message(LogLevel::error, std::string("the store cannot be written: ") + failure.what());
	failing_ = true;
	maintaining_ = false;
	retry_at_ = Clock::now() + retry_time;
	const int code = failure.code & 0xff;
	if (code == SQLITE_FULL) small_until_ = Clock::now() + small_time;
	// Other calls fail as well where there is no block left, with other codes.
	if (code != SQLITE_BUSY && disk_space(path_).free_bytes < most_bytes_of_full_disk) give_up_reserve(path_);
	// Somebody else's lock, and a full disk, leave the store itself as it was; its room may be needed to make more.
	if (store_ && (code == SQLITE_BUSY || code == SQLITE_FULL)) {
		store_->abandon();
		if (code == SQLITE_FULL) store_->confine();
	} else
		store_.reset();
}

} // namespace quorbit
