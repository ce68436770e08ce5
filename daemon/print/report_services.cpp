// Sums of keys, added up by what they have in common.
#include "print/report_services.h"

#include "base/clock.h"
#include "facts/trace.h"
#include "print/report.h"
#include "print/report_sums.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <tuple>

namespace quorbit {

namespace {

constexpr int64_t most_keys = 5000;
constexpr int most_examples = 16; // requests that are read in full

// "pay.example" of "http://pay.example:81/v2/charges (curl_exec)"; what has no host stays as it is.
std::string host_of(const std::string &name)
{
	const size_t scheme = name.find("://"), begin = scheme == std::string::npos ? 0 : scheme + 3;
	std::string host = name.substr(begin, name.find_first_of("/ ?", begin) - begin);
	return host.empty() ? name : host;
}

struct Kind {
	SumKey key;
	const char *layer;
	std::string (*target)(const KeyFacts &facts);
};

constexpr Kind kinds[] = {
	{SumKey::query, "database", [](const KeyFacts &facts) { return facts.vendor.empty() ? facts.name : facts.vendor; }},
	{SumKey::cache, "cache", [](const KeyFacts &facts) { return facts.name.substr(0, facts.name.find(' ')); }},
	{SumKey::external, "external", [](const KeyFacts &facts) { return host_of(facts.name); }},
};

// The application that answered a call of this host in that request; "" when the store does not tell.
std::string answering(Reader &store, int64_t request, const std::string &host)
{
	auto whole = whole_action(store, request);
	auto nodes = whole ? read_trace(whole->shown.action.trace) : std::nullopt;
	if (!nodes) return {};
	for (const TraceNode &node : *nodes) {
		if (!node.callee || host_of(node.url) != host) continue;
		for (const RelatedAction &other : whole->related) {
			if (!other.tracer_id.empty() && other.tracer_id == node.callee->tracer_id) return other.row.application;
		}
	}
	return {};
}

class Mapper {
public:
	Mapper(Reader &store, const SumFilter &filter) : store_(store), filter_(filter) {}

	ServiceMap run()
	{
		SumAnswer applications = ask(SumKey::application);
		ServiceMap map{applications.range, std::move(applications.rows), {}};
		for (const Kind &kind : kinds) {
			for (const SumRow &row : ask(kind.key).rows) add(kind, row);
		}
		for (auto &[key, edge] : edges_) {
			if (edge.kind == "external") edge.application = whose(edge);
			map.edges.push_back(std::move(edge));
		}
		std::stable_sort(map.edges.begin(), map.edges.end(), [](const ServiceEdge &a, const ServiceEdge &b) {
			return std::tuple(a.from, -a.sums.total_us) < std::tuple(b.from, -b.sums.total_us);
		});
		return map;
	}

private:
	SumAnswer ask(SumKey key)
	{
		SumQuestion question;
		question.key = key;
		question.filter = filter_;
		question.most = most_keys;
		return store_.sums(question);
	}

	void add(const Kind &kind, const SumRow &row)
	{
		std::string target = kind.target(row.key);
		ServiceEdge &edge = edges_[{row.key.application, kind.layer, target}];
		edge.from = row.key.application;
		edge.kind = kind.layer;
		edge.to = std::move(target);
		edge.sums.add(row.sums);
	}

	std::string whose(const ServiceEdge &edge)
	{
		for (int64_t request : {edge.sums.newest_id, edge.sums.slowest_id}) {
			if (request == 0 || examples_++ >= most_examples) continue;
			std::string name = answering(store_, request, edge.to);
			if (!name.empty()) return name;
		}
		return {};
	}

	Reader &store_;
	const SumFilter filter_;
	std::map<std::tuple<std::string, std::string, std::string>, ServiceEdge> edges_;
	int examples_ = 0;
};

} // namespace

ServiceMap service_map(Reader &store, const SumFilter &filter)
{
	return Mapper(store, filter).run();
}

Json service_map_json(const ServiceMap &map)
{
	Json object = {{"from", utc_time(map.range.from_ms)}, {"until", utc_time(map.range.until_ms)}};
	Json &applications = object["applications"] = Json::array(), &edges = object["edges"] = Json::array();
	for (const SumRow &row : map.applications) {
		Json entry = {{"name", row.key.application.empty() ? row.key.name : row.key.application}};
		entry.update(figures_json(row.sums));
		applications.push_back(std::move(entry));
	}
	for (const ServiceEdge &edge : map.edges) {
		Json entry = {{"from", edge.from}, {"kind", edge.kind}, {"to", edge.to}, {"application", edge.application}};
		entry.update(figures_json(edge.sums));
		edges.push_back(std::move(entry));
	}
	return object;
}

} // namespace quorbit
