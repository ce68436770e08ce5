// quorbit clickhouse setup, retain: the tables of a fleet's store.
#include "ask/clickhouse.h"
#include "store/fleet_address.h"

#include "base/clock.h"
#include "print/output.h"
#include "store/fleet_layout.h"

#include <algorithm>

namespace quorbit {

namespace {

struct ClickHouseArguments {
	Retention retention{0, 90};
	bool print = false;
	CLI::App *setup = nullptr, *retain = nullptr;
};

void print_statement(const std::string &sql)
{
	put(sql + ";\n");
}

int set_up_tables(const StoreUrl &url, const std::string &cluster, bool print)
{
	if (print) {
		for (const std::string &sql : setup_statements(url, cluster)) print_statement(sql);
		return 0;
	}
	set_up(url, cluster);
	tell("The tables are there: " + url.shown());
	return 0;
}

int retain_days(const StoreUrl &url, Retention retention, bool print)
{
	retention.hour_days = std::max(retention.hour_days, retention.days);
	ClickHouse server(url, std::chrono::seconds(600));
	size_t dropped = 0;
	for (size_t host = 0; host < url.hosts.size(); host++) {
		for (const std::string &sql : retain_statements(server, host, retention, wall_clock_ms())) {
			if (print)
				print_statement(sql);
			else
				server.ask_host(host, sql);
			dropped++;
		}
	}
	if (!print) tell("Partitions dropped: " + std::to_string(dropped));
	return 0;
}

int clickhouse(const ClickHouseArguments &arguments, const DaemonConfig &config)
{
	const FleetAddress fleet = fleet_of(config);
	if (arguments.setup->parsed()) return set_up_tables(fleet.url, fleet.cluster, arguments.print);
	return retain_days(fleet.url, arguments.retention, arguments.print);
}

} // namespace

CommandRun add_clickhouse(CLI::App &command)
{
	auto arguments = std::make_shared<ClickHouseArguments>();
	arguments->setup =
		command.add_subcommand("setup", "make the database and tables that are missing")->group("Commands");
	arguments->retain = command.add_subcommand("retain", "drop what is older than so many days")->group("Commands");
	arguments->retain->add_option("DAYS", arguments->retention.days, "for which actions and sums by minute are kept")
		->required()
		->check(CLI::Range(1, 36500));
	arguments->retain->add_option("--hours", arguments->retention.hour_days, "for which sums by hour are kept, in days")
		->check(CLI::Range(1, 36500))
		->capture_default_str();
	for (CLI::App *verb : {arguments->setup, arguments->retain})
		verb->add_flag("--print", arguments->print, "print the SQL, and run nothing that changes anything");
	command.require_subcommand(1);
	set_examples(command,
		{{"quorbit clickhouse setup", "once, on any host of the fleet"},
			{"quorbit clickhouse setup --print", "for administrators who do it themselves"},
			{"quorbit clickhouse retain 14", "once a day, from cron"}});
	return [arguments](const DaemonConfig &config) { return clickhouse(*arguments, config); };
}

} // namespace quorbit
