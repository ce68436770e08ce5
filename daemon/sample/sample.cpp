// Filling the store by the daemon's own writing half, a day minute by minute.
#include "sample/sample.h"

#include "base/account.h"
#include "base/clock.h"
#include "base/files.h"
#include "host/findings.h"
#include "print/report.h"
#include "sample/sample_radar.h"
#include "sample/sample_shop.h"
#include "store/open_reader.h"
#include "store/releases.h"
#include "store/store.h"

#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <pwd.h>
#include <unistd.h>

namespace quorbit {

namespace {

constexpr int64_t day_minutes = 24 * 60;
// Minutes of the day at which something happened.
constexpr int64_t first_release = 150, outage_from = 600, outage_until = 632, second_release = 1050;
constexpr uint64_t seed = 20160415;

// The busiest time is twenty hours after the day's begin.
double rush_at(int64_t minute)
{
	return 0.5 + 0.5 * std::cos(2 * M_PI * static_cast<double>(minute - 1200) / static_cast<double>(day_minutes));
}

HostSample machine_at(const SampleMoment &moment, SampleRandom &random)
{
	HostSample sample;
	sample.load = 0.2 + 2.4 * moment.rush + random.share() * 0.3;
	sample.memory_bytes = int64_t{16} << 30;
	sample.available_bytes = static_cast<int64_t>((9.5 - 3 * moment.rush - random.share() * 0.2) * (1 << 30));
	const auto busy = static_cast<int64_t>(1 + 7 * moment.rush + random.share() * 2) + (moment.outage ? 9 : 0);
	sample.pools["shop"] = {busy, std::max<int64_t>(20 - busy, 0), moment.outage ? 6 : 0};
	sample.pools["stock"] = {static_cast<int64_t>(random.share() + moment.rush), 3};
	sample.pools["jobs"] = {random.share() < 0.3, 1};
	return sample;
}

StoredQuery query_of(const char *application, const char *sapi, int64_t process, int64_t at_ms, const char *threshold)
{
	return {application, process, at_ms, sapi, "5.6.40",
		std::string("zqs.action_tracer.enabled=1\nzqs.action_tracer.action_threshold=") + threshold +
			"\nzqs.action_tracer.explain_enabled=1\nzqs.action_tracer.explain_threshold=5\n"
			"zqs.action_tracer.record_sql=raw\nzqs.action_tracer.slow_sql=1\nzqs.action_tracer.slow_sql_threshold=5\n"
			"zqs.details=1\nzqs.transaction_tracer.enabled=1\n"};
}

// A call of the profile's tree, and what it calls.
struct ProfiledCall {
	const char *name;
	int64_t own_ms;
	int times;
	std::vector<ProfiledCall> calls;
};

const ProfiledCall &profiled_page()
{
	static const ProfiledCall page = {"include", 2, 1,
		{{"Session::open", 1, 1, {{"Redis::get", 1, 1, {}}, {"PDO::query", 1, 1, {}}}},
			{"Menu::load", 1, 1, {{"Redis::get", 1, 1, {}}}},
			{"Catalogue::rows", 3, 1,
				{{"PDO::query", 3, 1, {}}, {"Catalogue::stars", 0, 40, {{"PDO::query", 3, 1, {}}}}}},
			{"Template::render", 6, 1, {{"Template::part", 1, 6, {{"htmlspecialchars", 1, 2, {}}}}}}}};
	return page;
}

class ProfileLines {
public:
	ProfileLines(Store &store, int64_t at_ms) : store_(store), at_ms_(at_ms) {}

	void request(int64_t thread)
	{
		thread_ = thread;
		line("enter action Web");
		call(profiled_page());
		line("leave action ok");
		clock_ms_ += 40;
	}

private:
	void call(const ProfiledCall &called)
	{
		for (int i = 0; i < called.times; i++) {
			line(std::string("enter function ") + called.name);
			for (const ProfiledCall &inner : called.calls) call(inner);
			clock_ms_ += called.own_ms;
			line(std::string("leave function ") + called.name);
		}
	}

	void line(const std::string &text)
	{
		std::string body;
		append_record(body, record_application_name, "Shop");
		append_record(body, record_account_key, "empty key");
		append_record(
			body, record_profile_line, std::to_string(clock_ms_) + " " + std::to_string(thread_) + " " + text);
		store_.add(StoredPacket{record_thread_profile, thread_, at_ms_, std::move(body)});
	}

	Store &store_;
	const int64_t at_ms_;
	int64_t thread_ = 0, clock_ms_ = 5000000;
};

ProcessGroup pool_of(const char *name, const char *application, int first, int count, AgentState agent, int64_t now_ms)
{
	ProcessGroup group;
	for (int i = 0; i < count; i++) {
		PhpProcess process;
		process.id = first + i;
		process.server = PhpServer::fpm;
		process.pool = name;
		process.agent = agent;
		process.started_ms = now_ms - day_ms;
		group.processes.push_back(std::move(process));
	}
	group.report.applications = {application};
	group.report.query_ms = now_ms - 31000;
	group.report.packet_ms = now_ms - 2000;
	group.report.account = "www-data";
	return group;
}

} // namespace

Sample::Sample()
{
	std::string root = (std::filesystem::temp_directory_path() / "quorbit-sample-XXXXXX").string();
	if (!mkdtemp(root.data())) throw_errno(root);
	root_ = root;
	config_ = default_daemon_config(root_);
	std::filesystem::create_directories(config_.folder());
	const struct passwd *nobody = geteuid() == 0 ? getpwnam("nobody") : nullptr;
	for (std::filesystem::path at = config_.folder(); nobody && at != std::filesystem::path(root_).parent_path();
		 at = at.parent_path()) {
		if (chown(at.c_str(), nobody->pw_uid, nobody->pw_gid) != 0) throw_errno(at.string());
	}
}

Sample::~Sample()
{
	profile_.reset();
	std::error_code ignored;
	std::filesystem::remove_all(root_, ignored);
}

void Sample::fill()
{
	const int64_t now_ms = wall_clock_ms();
	const int64_t begin_ms = now_ms / minute_ms * minute_ms - (day_minutes - 1) * minute_ms;
	Store store(config_.store_file());
	SampleShop shop(seed);
	store.begin();
	for (int64_t minute = 0; minute < day_minutes; minute++) {
		SampleMoment moment{begin_ms + minute * minute_ms, rush_at(minute), minute >= second_release,
			minute >= outage_from && minute < outage_until};
		for (SamplePacket &packet : shop.minute(moment)) {
			if (packet.at_ms > now_ms) break; // of the minute that is not over yet
			store.add(StoredPacket{record_metric, packet.process, packet.at_ms, std::move(packet.body)});
		}
		store.add(machine_at(moment, shop.random()), moment.at_ms);
		if (minute % 240 == 239) store.commit(), store.begin();
	}
	store.add(query_of("Shop", "FPM/FastCGI", 2103, now_ms - 31000, "100"));
	store.add(query_of("Stock", "FPM/FastCGI", 2201, now_ms - 12000, "50"));
	store.commit();
	store.write_sums();
	mark_release(config_.store_file(), {begin_ms + first_release * minute_ms, "2.3.9", "Shop"});
	mark_release(config_.store_file(), {begin_ms + second_release * minute_ms, "2.4.0", "Shop"});
	add_sample_radar(config_.store_file(), now_ms);
	add_profile(store);
}

void Sample::add_profile(Store &store)
{
	const int64_t now_ms = wall_clock_ms();
	profile_ = std::make_unique<ProfileOrders>(config_.store_file());
	profile_order_ = profile_->order("Shop", profile_seconds);
	store.open_orders(now_ms);
	store.begin();
	store.order_started({profile_order_, "Shop", profile_seconds, now_ms - 40000, 2103});
	ProfileLines lines(store, now_ms - 20000);
	for (int64_t i = 0; i < 12; i++) lines.request(2100 + i / 2);
	store.commit();
}

std::unique_ptr<ProfileOrders> Sample::take_profile(int64_t &order, std::string &application)
{
	order = profile_order_;
	application = "Shop";
	return std::move(profile_);
}

std::string Sample::status() const
{
	const auto applications = open_reader(config_)->applications();
	HostFacts facts;
	facts.now_ms = wall_clock_ms();
	facts.folder.path = config_.folder();
	facts.folder.there = facts.folder.log_can_be_written = facts.folder.start_tried = true;
	facts.folder.mode = 02750;
	facts.daemon.answers = true;
	facts.daemon.process = 611;
	facts.groups = {pool_of("shop", "Shop", 2100, 6, AgentState::loaded, facts.now_ms),
		pool_of("stock", "Stock", 2200, 3, AgentState::loaded, facts.now_ms),
		pool_of("jobs", "Shop", 2300, 2, AgentState::replaced, facts.now_ms)};
	return json_text(host_json(facts, findings_of(facts), applications), false);
}

} // namespace quorbit
