// When to send, what has arrived, and what to do when nothing does.
#include "export/exporter.h"

#include "base/clock.h"
#include "base/files.h"
#include "store/fleet_layout.h"
#include "store/sqlite_sums.h"

#include <algorithm>
#include <utility>

namespace quorbit {

namespace {

using namespace std::chrono_literals;

constexpr auto most_time = 60s; // of a batch
constexpr auto first_pause = 1s, longest_pause = 30s;
constexpr int sums_every = 6;           // batches
constexpr size_t most_arrived = 100000; // asked for at once

// Whoever begins to send takes the actions that are there.
int64_t before_first(Database &database)
{
	return database.integer(
		"SELECT ifnull((SELECT min(id) - 1 FROM action), (SELECT value FROM counter WHERE name = 'action'))");
}

} // namespace

Exporter::Session::Session(StoreUrl url, const std::string &host, const std::atomic<bool> *stopping)
	: server(std::move(url), most_time, stopping), source{0, host}
{
}

Exporter::Exporter(std::string store_path, StoreWriter &writer)
	: path_(std::move(store_path)), writer_(writer), thread_([this] { run(); })
{
}

void Exporter::run()
{
	while (wait_until_due()) {
		try {
			work();
		} catch (const SqliteError &) {
			// Not made yet, or it cannot be read: the thread that writes it tells.
			store_.reset();
			session_.reset();
			due_ = Clock::now() + first_pause;
		} catch (const std::exception &failure) {
			failed(failure.what());
		}
	}
}

// False when the thread is to end.
bool Exporter::wait_until_due()
{
	const ExportSettings before = settings_;
	const bool goes_on = thread_.wait_until(due_, settings_);
	if (settings_ != before) {
		session_.reset();
		pause_ = 0s;
	}
	return goes_on;
}

void Exporter::work()
{
	if (settings_.url.empty()) {
		due_ = Clock::time_point::max(); // nothing of the store is open meanwhile
		store_.reset();
		return;
	}
	if (!follow_store()) session_.reset();
	const auto next = Clock::now() + std::chrono::seconds(settings_.seconds);
	if (!session_) open_session();
	send_actions();
	if (Clock::now() >= sums_due_) {
		send_sums();
		sums_due_ = next + (sums_every - 1) * std::chrono::seconds(settings_.seconds);
	}
	if (!std::exchange(state_.failure, "").empty())
		log_message(LogLevel::info, "sending to " + state_.url + " works again");
	keep(state_);
	pause_ = 0s;
	due_ = next;
}

// False when another store has taken the place of the former one.
bool Exporter::follow_store()
{
	if (!store_) store_.emplace(path_, Database::Mode::read_only);
	Database &database = store_->current();
	const int64_t identity = database.integer("SELECT value FROM counter WHERE name = 'identity'");
	if (identity == std::exchange(identity_, identity)) return true;
	state_ = kept_ = read_export_state(database);
	return false;
}

void Exporter::open_session()
{
	StoreUrl url = parse_store_url(settings_.url);
	state_.url = url.shown();
	read_password(url, settings_.password_file);
	const std::string host = settings_.host_name.empty() ? this_host() : settings_.host_name;
	session_.emplace(std::move(url), host, &thread_.stopping());
	try {
		const int64_t target = fleet_identity(session_->server);
		if (target != state_.target) {
			state_ = {target};
			state_.action_id = before_first(store_->current());
			state_.url = session_->server.url().shown();
		}
		session_->source.number = fleet_source(session_->server, host, identity_);
		session_->arrived_until = state_.action_id;
		sums_due_ = {};
	} catch (...) {
		session_.reset();
		throw;
	}
}

// What has arrived of those that are to be sent next: more than is known after a batch whose answer did not come, or
// when the daemon ended before it had kept how far it was.
void Exporter::see_what_arrived()
{
	Session &session = *session_;
	const std::string number = std::to_string(session.source.number);
	const std::string running =
		session.server.ask("SELECT toInt64(count()) FROM system.processes WHERE query_id LIKE 'quorbit-" + number +
			"-%' FORMAT RowBinary");
	if (RowReader(running).number<int64_t>() > 0)
		throw ClickHouseError(session.server.url().shown() + ": is still busy with the last batch", true);
	const std::string answer =
		session.server.ask("SELECT DISTINCT toInt64(id) AS id FROM action WHERE source = " + number + " AND id > " +
			std::to_string(fleet_id(session.source.number, state_.action_id)) + " ORDER BY id LIMIT " +
			std::to_string(most_arrived) + " FORMAT RowBinary");
	session.arrived.clear();
	for (RowReader row(answer); !row.is_at_end();)
		session.arrived.insert(row.number<int64_t>() - fleet_id(session.source.number, 0));
	session.arrived_until = session.arrived.size() < most_arrived ? INT64_MAX : *session.arrived.rbegin();
}

void Exporter::send_actions()
{
	for (bool more = true; more && !thread_.stopping();) {
		Session &session = *session_;
		if (state_.action_id >= session.arrived_until) see_what_arrived();
		Inserts inserts(session.server, "quorbit-" + std::to_string(session.source.number));
		ExportState sent = state_;
		{
			Unstopped reading;
			more = add_actions(store_->current(), session.source, session.arrived, inserts, sent);
		}
		if (sent == state_) return;
		inserts.send();
		sent.sent_ms = wall_clock_ms();
		state_ = sent;
		keep(state_);
	}
}

void Exporter::send_sums()
{
	Inserts inserts(session_->server, "quorbit-sums-" + std::to_string(session_->source.number));
	ExportState sent = state_;
	add_sums(*store_, session_->source, inserts, sent);
	inserts.send();
	state_ = sent;
}

// The next time everything begins anew, and whether the last batch has arrived is asked.
void Exporter::failed(const std::string &why)
{
	session_.reset();
	if (thread_.stopping()) return;
	if (state_.failure.empty()) log_message(LogLevel::warning, "nothing can be sent: " + why);
	state_.failure = why;
	if (store_) keep(state_);
	pause_ = std::clamp(2 * pause_, std::chrono::seconds(first_pause), std::chrono::seconds(longest_pause));
	due_ = Clock::now() + pause_;
}

void Exporter::keep(const ExportState &state)
{
	if (state == kept_) return;
	writer_.put(state);
	kept_ = state;
}

} // namespace quorbit
