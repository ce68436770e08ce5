// One connection, read and written within its bounds. Requests follow one another on connections of their own: whatever
// one of them leaves unread cannot become another.
#include "base/bounded_server.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace quorbit {

namespace {

using Clock = std::chrono::steady_clock;

thread_local bool turned_away = false; // the connection at hand is one too many

class BoundedStream : public httplib::Stream {
public:
	explicit BoundedStream(int socket) : socket_(socket), deadline_(later()) {}

	bool is_readable() const override { return wait(POLLIN); }
	bool is_writable() const override { return wait(POLLOUT); }

	ssize_t read(char *bytes, size_t size) override
	{
		if (begin_ == end_ && !fill()) return -1;
		size = std::min(size, end_ - begin_);
		std::copy_n(buffer_ + begin_, size, bytes);
		begin_ += size;
		return static_cast<ssize_t>(size);
	}

	ssize_t write(const char *bytes, size_t size) override
	{
		if (!answering_) deadline_ = later(); // what the question took does not count
		answering_ = true;
		if (!wait(POLLOUT)) return -1;
		return send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
	}

	void get_remote_ip_and_port(std::string &, int &) const override {}
	void get_local_ip_and_port(std::string &, int &) const override {}
	int socket() const override { return socket_; }

private:
	static Clock::time_point later() { return Clock::now() + std::chrono::seconds(BoundedServer::most_seconds); }

	bool wait(short what) const
	{
		const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
		struct pollfd entry = {socket_, what, 0};
		return left > 0 && poll(&entry, 1, static_cast<int>(left)) == 1;
	}

	bool fill()
	{
		if (taken_ >= BoundedServer::most_bytes || !wait(POLLIN)) return false;
		const ssize_t length = recv(socket_, buffer_, sizeof buffer_, 0);
		if (length <= 0) return false;
		taken_ += static_cast<size_t>(length);
		begin_ = 0;
		end_ = static_cast<size_t>(length);
		return true;
	}

	const int socket_;
	Clock::time_point deadline_;
	bool answering_ = false;
	size_t taken_ = 0, begin_ = 0, end_ = 0;
	char buffer_[4096];
};

// Workers, and a queue that has an end.
class BoundedQueue : public httplib::TaskQueue {
public:
	BoundedQueue()
	{
		for (size_t i = 0; i < BoundedServer::workers; i++) threads_.emplace_back([this] { work(); });
	}

	void enqueue(std::function<void()> task) override
	{
		std::unique_lock lock(mutex_);
		if (tasks_.size() >= BoundedServer::most_waiting) {
			lock.unlock();
			turned_away = true;
			task(); // closes it
			turned_away = false;
			return;
		}
		tasks_.push_back(std::move(task));
		more_.notify_one();
	}

	void shutdown() override
	{
		{
			std::lock_guard lock(mutex_);
			ending_ = true;
		}
		more_.notify_all();
		for (std::thread &thread : threads_) thread.join();
	}

private:
	void work()
	{
		for (;;) {
			std::unique_lock lock(mutex_);
			more_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
			if (tasks_.empty()) return;
			auto task = std::move(tasks_.front());
			tasks_.pop_front();
			lock.unlock();
			task();
		}
	}

	std::mutex mutex_;
	std::condition_variable more_;
	std::deque<std::function<void()>> tasks_;
	bool ending_ = false;
	std::vector<std::thread> threads_;
};

// A connection that is closed with something unread is reset, and the answer may be lost on its way: what a client is
// still sending is read first, for a moment.
void end_connection(int socket)
{
	shutdown(socket, SHUT_WR);
	char rest[4096];
	struct pollfd entry = {socket, POLLIN, 0};
	for (int i = 0; i < 16 && poll(&entry, 1, 50) == 1; i++) {
		if (recv(socket, rest, sizeof rest, MSG_DONTWAIT) <= 0) break;
	}
}

} // namespace

BoundedServer::BoundedServer()
{
	new_task_queue = [] { return new BoundedQueue; };
	set_payload_max_length(most_body);
}

bool BoundedServer::process_and_close_socket(int socket)
{
	bool done = false;
	if (!turned_away) {
		BoundedStream stream(socket);
		bool closed = false;
		done = process_request(stream, true, closed, [](httplib::Request &request) {
			// Answers go out whole and as they are: on loopback compressing costs more than it saves.
			request.headers.erase("Accept-Encoding");
			request.ranges.clear();
		});
		end_connection(socket);
	}
	::close(socket);
	return done;
}

} // namespace quorbit
