// From how far the daemon has come to words.
#include "ask/sending.h"

#include "base/files.h"
#include "base/text.h"
#include "facts/applications.h"
#include "store/export_state.h"

namespace quorbit {

namespace {

constexpr int64_t late_ms = minute_ms; // what has waited for longer is a finding

} // namespace

Sending sending_of(const DaemonConfig &config, int64_t now_ms)
{
	const std::string file = config.applications_file();
	if (!inode_of(file) || parse_applications(read_file(file, true)).store_url.empty()) return {};
	const ExportProgress progress = export_progress(config.store_file());
	const ExportState &state = progress.state;
	if (state.url.empty()) return {};
	const int64_t behind_ms = progress.waits_since_ms ? std::max(now_ms - progress.waits_since_ms, int64_t{0}) : 0;
	const std::string behind = std::to_string(behind_ms / 1000) + " s behind";
	Sending sending;
	sending.text = "Sends to " + printable(state.url) + ", " + behind;
	if (state.evicted)
		sending.text += "; " + std::to_string(state.evicted) + " actions made room for others before they were sent";
	sending.text += ".\n";
	if (state.failure.empty() && behind_ms <= late_ms) return sending;
	const std::string why = state.failure.empty() ? "" : "; the last attempt: " + state.failure;
	sending.finding = Finding{"not_sent", "sending to " + state.url + " is " + behind + why,
		state.failure.empty() ? "see how busy that server is"
							  : "see to that server, or to store_url in applications.conf; what waits is sent then",
		{}};
	return sending;
}

} // namespace quorbit
