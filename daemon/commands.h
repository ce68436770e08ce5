// The commands of the operator. Each prints to standard output and returns the exit status; they throw std::runtime_error with a
// message for the operator.
#pragma once

#include "config.h"

#include <cstdint>
#include <optional>
#include <string>

namespace quorbit {

struct ShowOptions {
  std::optional<int64_t> id;  // one action whole; else a list
  int64_t most = 20;
  std::string application;    // "" for all
  bool json = false;
  bool full = false;          // of one action: nothing summed up or cut
};

int show(const DaemonConfig& config, const ShowOptions& options);
int tail(const DaemonConfig& config, const std::string& application, bool json);
int top(const DaemonConfig& config, const std::string& application, int64_t since_seconds);
int status(const DaemonConfig& config);
int profile(const DaemonConfig& config, const std::string& application, int64_t seconds);

}  // namespace quorbit
