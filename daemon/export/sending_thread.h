// The life of a thread that sends what is stored: it works when it is due or has been given other settings, and nobody
// waits for it for longer than he wants to.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

namespace quorbit {

// The last member of whoever sends: the thread uses the others.
template <typename Settings>
class SendingThread {
public:
	using Clock = std::chrono::steady_clock;

	// Starts it. `run` returns once wait_until() has returned false.
	explicit SendingThread(std::function<void()> run)
		: thread_([this, run = std::move(run)] {
			  run();
			  end_.set_value();
		  })
	{
	}
	~SendingThread()
	{
		stop();
		thread_.join();
	}

	// Any thread.
	void set_settings(const Settings &settings)
	{
		{
			std::lock_guard lock(mutex_);
			if (given_ == settings) return;
			given_ = settings;
		}
		woken_.notify_one();
	}
	// Ends the thread. False when it has not ended after so long: a disk holds it up, and would hold up the destructor.
	bool end(std::chrono::milliseconds most)
	{
		stop();
		return ended_.wait_for(most) == std::future_status::ready;
	}

	// The thread's own, as the next. Waits for that time (max() for ever), or for settings that are not those, which
	// are taken over. False when the thread is to end.
	bool wait_until(Clock::time_point due, Settings &settings)
	{
		std::unique_lock lock(mutex_);
		const auto has_news = [&] { return stopping_ || given_ != settings; };
		if (due == Clock::time_point::max())
			woken_.wait(lock, has_news);
		else
			woken_.wait_until(lock, due, has_news);
		settings = given_;
		return !stopping_;
	}
	// Set from another thread, to end what takes long.
	const std::atomic<bool> &stopping() const { return stopping_; }

private:
	void stop()
	{
		{
			std::lock_guard lock(mutex_);
			stopping_ = true;
		}
		woken_.notify_one();
	}

	std::atomic<bool> stopping_ = false;
	std::mutex mutex_;
	std::condition_variable woken_;
	Settings given_;
	std::promise<void> end_;
	const std::future<void> ended_ = end_.get_future();
	std::thread thread_;
};

} // namespace quorbit
