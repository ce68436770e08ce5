// Folded stacks, Callgrind and Speedscope.
#include "print/profile_formats.h"

#include "base/json_text.h"
#include "base/version.h"
#include "print/report.h"

#include <nlohmann/json.hpp>
#include <algorithm>

namespace quorbit {

namespace {

// A name in a line of fields: no line breaks, and nothing that separates.
std::string in_line(std::string name, char separator)
{
	for (char &byte : name) {
		if (static_cast<unsigned char>(byte) < ' ' || byte == separator) byte = '_';
	}
	return name;
}

std::string in_json(const std::string &text)
{
	std::string quoted = json_text(Json(text), false);
	quoted.pop_back(); // the line's end
	return quoted;
}

} // namespace

void put_folded(const CallTree &tree, const std::vector<std::string> &names, const Put &put)
{
	std::vector<size_t> path;
	for (const CallTree::Node &node : tree.nodes()) {
		if (node.sum.own_ms == 0) continue;
		path.clear();
		path.push_back(node.function);
		for (size_t at = node.parent; at != 0; at = tree.nodes()[at].parent) path.push_back(tree.nodes()[at].function);
		std::string line;
		for (size_t i = path.size(); i-- > 0;) line += in_line(names[path[i]], ';') + (i ? ";" : " ");
		put(line + std::to_string(node.sum.own_ms) + "\n");
	}
}

std::string callgrind_text(const CallTree &tree, const std::vector<std::string> &names, const std::string &application)
{
	std::map<size_t, std::map<size_t, CallSum>> called; // by caller, by callee
	for (size_t i = 1; i < tree.nodes().size(); i++) {
		const CallTree::Node &node = tree.nodes()[i];
		if (node.parent == 0) continue;
		CallSum &sum = called[tree.nodes()[node.parent].function][node.function];
		sum.calls += node.sum.calls;
		sum.total_ms += node.sum.total_ms;
	}
	std::string out = "# callgrind format\nversion: 1\ncreator: quorbit " + std::string(product_version) +
		"\ncmd: " + in_line(application, '\n') +
		"\npositions: line\nevents: ms\nsummary: " + std::to_string(tree.total_ms()) + "\n";
	auto number = [](size_t function) { return "(" + std::to_string(function + 1) + ")"; };
	for (size_t i = 0; i < names.size(); i++) {
		out += "\nfl=(1)" + std::string(i ? "" : " php") + "\nfn=" + number(i) + " " + in_line(names[i], '\n') +
			"\n0 " + std::to_string(tree.functions()[i].own_ms) + "\n";
		// A callee may be named before its own entry: a number with a name is taken at its first use.
		for (const auto &[callee, sum] : called[i]) {
			out += "cfn=" + number(callee) + " " + in_line(names[callee], '\n') +
				"\ncalls=" + std::to_string(sum.calls) + " 0\n0 " + std::to_string(sum.total_ms) + "\n";
		}
	}
	return out;
}

std::string SpeedscopeWriter::end_profile()
{
	return "],\"startValue\":" + std::to_string(begin_ms_) + ",\"endValue\":" + std::to_string(last_ms_) + "}";
}

std::string SpeedscopeWriter::add(const ProfileStep &step)
{
	std::string out;
	if (steps_ == 0)
		out = "{\"$schema\":\"https://www.speedscope.app/file-format-schema.json\",\"exporter\":\"quorbit " +
			std::string(product_version) + "\",\"name\":" + in_json(application_) + ",\"profiles\":[\n";
	const bool new_thread = steps_++ == 0 || step.thread != thread_;
	if (new_thread) {
		if (steps_ > 1) out += end_profile() + ",\n";
		out += R"({"type":"evented","unit":"milliseconds","name":"thread )" + std::to_string(step.thread) +
			"\",\"events\":[\n";
		begin_ms_ = step.at_ms;
	}
	thread_ = step.thread;
	last_ms_ = step.at_ms;
	return out + (new_thread ? "" : ",\n") + R"({"type":")" + (step.enter ? "O" : "C") +
		"\",\"frame\":" + std::to_string(step.function) + ",\"at\":" + std::to_string(step.at_ms) + "}";
}

std::string SpeedscopeWriter::finish(const std::vector<std::string> &names)
{
	if (steps_ == 0) return "";
	std::string out = end_profile() + "],\n\"shared\":{\"frames\":[";
	for (size_t i = 0; i < names.size(); i++) out += (i ? ",\n{\"name\":" : "\n{\"name\":") + in_json(names[i]) + "}";
	return out + "]}}\n";
}

} // namespace quorbit
