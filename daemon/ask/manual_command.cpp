// quorbit manual: writes what the shell and `man` are told. Hidden: the build calls it, and completion does.
#include "ask/command.h"

#include "ask/manual.h"
#include "base/files.h"
#include "base/text.h"
#include "print/output.h"
#include "store/open_reader.h"

namespace quorbit {

namespace {

// One on a line; a name that would not fit a line, or this account may not know, is left out.
void put_applications(const DaemonConfig &config)
{
	if (access_refusal(config) || !has_store(config)) return;
	for (const ApplicationRow &row : open_reader(config)->applications()) {
		if (!row.name.empty() && printable(row.name) == row.name) put(row.name + "\n");
	}
}

} // namespace

CommandRun add_manual(CLI::App &command)
{
	struct ManualOptions {
		std::string page, file;
	};
	auto options = std::make_shared<ManualOptions>();
	command.group(""); // not listed
	command.add_option("PAGE", options->page)
		->required()
		->check(CLI::IsMember({"quorbit.1", "applications.conf.5", "bash", "zsh", "applications"}));
	command.add_option("FILE", options->file, "of applications.conf.5: such a file, with its comments");
	const CLI::App *app = command.get_parent();
	return [options, app](const DaemonConfig &config) {
		if (options->page == "quorbit.1") put(manual_page(*app));
		if (options->page == "applications.conf.5") put(settings_page(read_file(options->file)));
		if (options->page == "bash") put(bash_completion(*app));
		if (options->page == "zsh") put(zsh_completion(*app));
		if (options->page == "applications") put_applications(config);
		return 0;
	};
}

} // namespace quorbit
