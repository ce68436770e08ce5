// A store to look at before anything is installed: a day of a shop that nobody runs.
#pragma once

#include "base/config.h"
#include "store/profile_orders.h"

#include <memory>
#include <string>

namespace quorbit {

// A folder of its own below the system's for temporary files, with the store of a day that ends now: two applications,
// three pools of processes, two releases of which the second made a page slower, statements that are repeated or read
// whole tables, an outage of a called service, what stands in the way of PHP 7, and a thread profile. Everything but
// its clock is the same each time. The folder goes with this object.
class Sample {
public:
	static constexpr int64_t profile_seconds = 30;

	// Makes the folder; for root it is the account nobody's, whom this process then should become. Throws
	// std::system_error.
	Sample();
	~Sample();
	Sample(const Sample &) = delete;
	Sample &operator=(const Sample &) = delete;

	const DaemonConfig &config() const { return config_; }
	// What --root of other commands has to name.
	const std::string &root() const { return root_; }

	// Writes the store, within seconds. Throws std::runtime_error.
	void fill();
	// The profile in it: it stays there for as long as its order is held.
	std::unique_ptr<ProfileOrders> take_profile(int64_t &order, std::string &application);
	// What `quorbit status --json` would print of such a host.
	std::string status() const;

private:
	void add_profile(class Store &store);

	std::string root_; // of the folder
	DaemonConfig config_;
	std::unique_ptr<ProfileOrders> profile_;
	int64_t profile_order_ = 0;
};

} // namespace quorbit
