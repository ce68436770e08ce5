// Giving up root.
#include "base/account.h"

#include <cerrno>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <system_error>
#include <unistd.h>

namespace quorbit {

namespace {

[[noreturn]] void refuse(const char *what)
{
	throw std::system_error(errno, std::generic_category(), what);
}

void give_up_capabilities()
{
	for (int capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; capability++) {
		if (prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) refuse("giving up root's capabilities");
	}
	struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
	const struct __user_cap_data_struct none[2] = {};
	if (syscall(SYS_capset, &header, none) != 0) refuse("giving up root's capabilities");
}

// What the first version of Landlock knows that changes something, or runs it.
constexpr uint64_t changes = LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR |
	LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR |
	LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO |
	LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_EXECUTE;
constexpr uint64_t changes_of_files =
	LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_REG;

void change_nothing_outside(const std::string &folder)
{
	const struct landlock_ruleset_attr attributes = {.handled_access_fs = changes};
	const auto rules = static_cast<int>(syscall(SYS_landlock_create_ruleset, &attributes, sizeof attributes, 0));
	if (rules == -1) return; // a kernel without it
	struct landlock_path_beneath_attr beneath = {.allowed_access = changes_of_files, .parent_fd = -1};
	beneath.parent_fd = open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
	const bool there =
		beneath.parent_fd != -1; // no folder: nothing has been received yet, and nothing is to be written
	if (there && syscall(SYS_landlock_add_rule, rules, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0) != 0)
		refuse("giving up the right to write");
	if (syscall(SYS_landlock_restrict_self, rules, 0) != 0) refuse("giving up the right to write");
	if (there) close(beneath.parent_fd);
	close(rules);
}

} // namespace

void confine_root_to(const std::string &folder)
{
	if (geteuid() != 0) return;
	if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) refuse("giving up new privileges");
	change_nothing_outside(folder);
	give_up_capabilities();
}

void become_owner_of(const std::string &folder)
{
	struct stat status;
	if (geteuid() != 0 || stat(folder.c_str(), &status) != 0 || status.st_uid == 0) return;
	if (setgroups(0, nullptr) != 0 || setgid(status.st_gid) != 0 || setuid(status.st_uid) != 0)
		refuse(("becoming the owner of " + folder).c_str());
}

} // namespace quorbit
