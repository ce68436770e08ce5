# Where an installation puts things; sourced by packaging/install and packaging/uninstall, so that the one takes back
# exactly what the other placed. Every variable can be given from outside; DESTDIR goes before each path.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

fail() { echo "$(basename "$0"): $*" >&2; exit 1; }

PREFIX="${PREFIX:-/usr}"
RUNTIME_ROOT="${RUNTIME_ROOT:-/var}"
SYSCONFDIR="${SYSCONFDIR:-/etc}"
WEB_GROUP="${WEB_GROUP:-www-data}"
if [ -z "${EXTENSION_DIR:-}" ]; then
    php_config="${PHP_CONFIG:-build/engine/bin/php-config}"
    EXTENSION_DIR="$("$php_config" --extension-dir)" || fail "$php_config does not run; run make first, or give EXTENSION_DIR"
fi

for path in "$PREFIX" "$RUNTIME_ROOT" "$SYSCONFDIR" "$EXTENSION_DIR"; do
    [ "${path:0:1}" = / ] || fail "\"$path\" must be an absolute path"
done

log_folder="${DESTDIR:-}$RUNTIME_ROOT/log/quorbit"
agent_log="$log_folder/php-agent.log"

fill_in() {                             # from standard input
    local name expressions=()
    for name in PREFIX RUNTIME_ROOT SYSCONFDIR EXTENSION_DIR WEB_GROUP; do
        expressions+=(-e "s|@$name@|${!name}|g")
    done
    sed "${expressions[@]}"
}

# The rows of packaging/files.list as "MODE SOURCE PLACE", without DESTDIR.
rows() {
    awk 'NF == 4 && !/^#/ { print $2, $3, $4 }' packaging/files.list | fill_in
}
