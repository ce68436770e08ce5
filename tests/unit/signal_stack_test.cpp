#include <csignal>
#include <thread>
#include <vector>

#include "engine_fixture.h"
#include "zqp_debug.h"

/* The stack on which the calling thread handles signals; null when there is none of its own. */
static void* signal_stack()
{
	stack_t stack;
	sigaltstack(nullptr, &stack);
	return stack.ss_flags & SS_DISABLE ? nullptr : stack.ss_sp;
}

TEST(SignalStack, IsGivenToAThreadThatHasNoneAndTakenAgain)
{
	std::thread([] {
		void* opened = zq_open_signal_stack();
		EXPECT_TRUE(opened && signal_stack());
		EXPECT_EQ(zq_open_signal_stack(), nullptr) << "a second one";
		zq_close_signal_stack(opened);
		EXPECT_EQ(signal_stack(), nullptr);
	}).join();
}

TEST(SignalStack, OfTheHostIsLeftAlone)
{
	std::thread([] {
		std::vector<char> memory(SIGSTKSZ);
		stack_t hosts = {}, none = {};
		hosts.ss_sp = memory.data();
		hosts.ss_size = memory.size();
		none.ss_flags = SS_DISABLE;
		void* opened = zq_open_signal_stack(); /* the host sets its own later */
		sigaltstack(&hosts, nullptr);
		EXPECT_EQ(zq_open_signal_stack(), nullptr);
		zq_close_signal_stack(opened);
		EXPECT_EQ(signal_stack(), hosts.ss_sp);
		sigaltstack(&none, nullptr);
	}).join();
}
