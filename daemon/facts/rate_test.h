// Whether something happens more often at one time than at another, or whether chance makes it look so.
#pragma once

#include <cstdint>

namespace quorbit {

// The probability, two-sided, that `before` in `of_before` actions and `after` in `of_after` come of one rate: of so
// many in all, those after are then binomial with their share of the actions (J. Przyborowski, H. Wilenski:
// "Homogeneity of results in testing samples from Poisson series", 1940). Exact, so that it holds for few as well. 1
// without actions on either side.
double rate_test(int64_t before, int64_t of_before, int64_t after, int64_t of_after);

} // namespace quorbit
