// From how far the daemon has come to words.
#include "ask/sending.h"

#include "base/files.h"
#include "base/text.h"
#include "facts/applications.h"
#include "store/export_state.h"
#include "store/followed_store.h"
#include "store/otlp_state.h"

namespace quorbit {

namespace {

constexpr int64_t late_ms = minute_ms; // what has waited for longer is a finding

void add_fleet(const ExportProgress &progress, int64_t now_ms, Sending &sending)
{
	const ExportState &state = progress.state;
	if (state.url.empty()) return;
	const int64_t behind_ms = progress.waits_since_ms ? std::max(now_ms - progress.waits_since_ms, int64_t{0}) : 0;
	const std::string behind = std::to_string(behind_ms / 1000) + " s behind";
	sending.text += "Sends to " + printable(state.url) + ", " + behind;
	if (state.evicted)
		sending.text += "; " + std::to_string(state.evicted) + " actions made room for others before they were sent";
	sending.text += ".\n";
	if (state.failure.empty() && behind_ms <= late_ms) return;
	const std::string why = state.failure.empty() ? "" : "; the last attempt: " + state.failure;
	sending.finding = Finding{"not_sent", "sending to " + state.url + " is " + behind + why,
		state.failure.empty() ? "see how busy that server is"
							  : "see to that server, or to store_url in applications.conf; what waits is sent then",
		{}};
}

// Of spans: what is sent, and what is not.
void add_otlp(const OtlpState &state, int64_t now_ms, Sending &sending)
{
	sending.text += "Sends spans to " + printable(state.url) + ", last " +
		(state.sent_ms ? ago(state.sent_ms, now_ms) : std::string("never"));
	if (state.refused) sending.text += "; " + std::to_string(state.refused) + " actions were refused for good";
	if (state.evicted)
		sending.text += "; " + std::to_string(state.evicted) + " actions made room for others before they were sent";
	sending.text += ".\n";
	if (state.failure.empty() || sending.finding) return;
	sending.finding = Finding{"not_sent", "no spans can be sent to " + state.url + ": " + state.failure,
		"see to that receiver, or to otlp_url in applications.conf; what waits is sent then", {}};
}

} // namespace

Sending sending_of(const DaemonConfig &config, int64_t now_ms)
{
	const std::string file = config.applications_file();
	if (!inode_of(file)) return {};
	const Applications settings = parse_applications(read_file(file, true));
	Sending sending;
	if (!settings.store_url.empty()) add_fleet(export_progress(config.store_file()), now_ms, sending);
	if (settings.otlp_url.empty()) return sending;
	FollowedStore store(config.store_file(), Database::Mode::read_only);
	const OtlpState state = read_otlp_state(store.current());
	if (!state.url.empty()) add_otlp(state, now_ms, sending);
	return sending;
}

} // namespace quorbit
