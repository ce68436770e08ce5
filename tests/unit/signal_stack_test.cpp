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

/* Runs in a thread without a signal stack; sanitizers give each thread one, and take it back at its end. */
template <typename Body> static void in_bare_thread(Body body)
{
	std::thread([body] {
		stack_t none = {}, before;
		none.ss_flags = SS_DISABLE;
		sigaltstack(&none, &before);
		body();
		sigaltstack(&before, nullptr);
	}).join();
}

TEST(SignalStack, IsGivenToAThreadThatHasNoneAndTakenAgain)
{
	in_bare_thread([] {
		void* opened = zq_open_signal_stack();
		EXPECT_TRUE(opened && signal_stack());
		EXPECT_EQ(zq_open_signal_stack(), nullptr) << "a second one";
		zq_close_signal_stack(opened);
		EXPECT_EQ(signal_stack(), nullptr);
	});
}

TEST(SignalStack, OfTheHostIsLeftAlone)
{
	in_bare_thread([] {
		std::vector<char> memory(SIGSTKSZ);
		stack_t hosts = {};
		hosts.ss_sp = memory.data();
		hosts.ss_size = memory.size();
		void* opened = zq_open_signal_stack(); /* the host sets its own later */
		sigaltstack(&hosts, nullptr);
		EXPECT_EQ(zq_open_signal_stack(), nullptr);
		zq_close_signal_stack(opened);
		EXPECT_EQ(signal_stack(), hosts.ss_sp);
	});
}
