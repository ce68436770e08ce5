// The tail of a binomial distribution, added up.
#include "facts/rate_test.h"

#include <algorithm>
#include <cmath>

namespace quorbit {

namespace {

// That `n` tries of chance `p` give `k` or more, for a k above what is expected: the terms only become smaller.
double upper_tail(double k, double n, double p)
{
	double term = std::exp(
		std::lgamma(n + 1) - std::lgamma(k + 1) - std::lgamma(n - k + 1) + k * std::log(p) + (n - k) * std::log1p(-p));
	double sum = 0;
	for (; k <= n && term > sum * 1e-12; k++) {
		sum += term;
		term *= (n - k) / (k + 1) * p / (1 - p);
	}
	return sum;
}

} // namespace

double rate_test(int64_t before, int64_t of_before, int64_t after, int64_t of_after)
{
	if (of_before <= 0 || of_after <= 0) return 1;
	const auto all = static_cast<double>(before + after);
	const double share =
		static_cast<double>(of_after) / (static_cast<double>(of_before) + static_cast<double>(of_after));
	const double tail = static_cast<double>(after) > all * share
		? upper_tail(static_cast<double>(after), all, share)
		: upper_tail(static_cast<double>(before), all, 1 - share);
	return std::min(2 * tail, 1.0);
}

} // namespace quorbit
