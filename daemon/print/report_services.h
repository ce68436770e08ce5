// Who calls whom: applications, and the databases, caches and hosts that they ask.
#pragma once

#include "base/json_text.h"
#include "store/reader.h"

#include <string>
#include <vector>

namespace quorbit {

// What an application asks. The sums are of its calls: how many, how many failed (of outgoing ones), how long each
// took.
struct ServiceEdge {
	std::string from;        // an application
	std::string kind;        // "database", "cache" or "external", the layer that its time counts for
	std::string to;          // "MySQL", "Redis", "pay.example"
	std::string application; // that answered it, when it is one of the store's, else ""
	Sums sums;
};

struct ServiceMap {
	TimeRange range;
	std::vector<SumRow> applications; // actions of each, those with most time first
	std::vector<ServiceEdge> edges;   // of each application those with most time first
};

// Adds up statements by vendor, cache operations by product and outgoing calls by host. Which application answers is
// read from examples of calls that have a trace. Of the filter the range, the application and the host count.
ServiceMap service_map(Reader &store, const SumFilter &filter);
Json service_map_json(const ServiceMap &map);

} // namespace quorbit
