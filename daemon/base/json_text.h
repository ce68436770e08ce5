// JSON as agents write it, made fit for a strict parser.
#pragma once

#include <nlohmann/json_fwd.hpp> // whoever looks into a value includes <nlohmann/json.hpp>, which takes long to compile

#include <optional>
#include <string>
#include <string_view>

namespace quorbit {

// Ordered: what a program reads comes in the order in which it is documented.
using Json = nlohmann::ordered_json;

// Parses JSON of an agent. Agents write control bytes inside strings as they are, and data of a called application
// unchanged; such bytes, invalid UTF-8 and lone surrogates are repaired first. Nothing when it still does not parse, or
// is larger than 3 MiB: values take up to fifty times their text.
std::optional<Json> parse_agent_json(std::string_view text);

// The text that a JSON string body stands for; the body itself when it is none (texts of agents are sometimes cut).
std::string json_unescape(std::string_view body);

// Levels of lists and objects inside one another.
size_t json_nesting(std::string_view text);

} // namespace quorbit
