// Who still waits for a profile: its client holds a lock for as long as it lives, which the kernel gives up whatever
// ends the client. No heartbeat, no process id that may be of another namespace or used again.
#pragma once

#include <cstdint>
#include <string>

namespace quorbit {

// The file beside the store ("quorbit.db-orders", empty, of the store's owner alone) in which byte N stands for order
// N.
class OrderLock {
public:
	// Opens the file, or makes it. Throws SqliteError when it cannot be had or another account has put it there.
	explicit OrderLock(const std::string &store_path);
	~OrderLock();
	OrderLock(const OrderLock &) = delete;
	OrderLock &operator=(const OrderLock &) = delete;

	// Holds the order until this object or its process ends. Throws SqliteError.
	void hold(int64_t order);
	// Whether another one holds it.
	bool is_held(int64_t order) const;

private:
	int file_ = -1;
};

} // namespace quorbit
