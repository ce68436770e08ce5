# Where an installation puts things; sourced by packaging/install and packaging/uninstall, so that the one takes back
# exactly what the other placed. Every variable can be given from outside; DESTDIR goes before each path.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

fail() { echo "$(basename "$0"): $*" >&2; exit 1; }

BUILD="${BUILD:-build}"
PREFIX="${PREFIX:-/usr}"
RUNTIME_ROOT="${RUNTIME_ROOT:-/var}"
SYSCONFDIR="${SYSCONFDIR:-/etc}"
WEB_GROUP="${WEB_GROUP:-www-data}"
# A package is for any PHP of this kind, which has such a folder somewhere of its own.
[ -z "${package:-}" ] || EXTENSION_DIR="$PREFIX/lib/quorbit/no-debug-zts-20131226"
if [ -z "${EXTENSION_DIR:-}" ]; then
    php_config="${PHP_CONFIG:-$BUILD/engine/bin/php-config}"
    EXTENSION_DIR="$("$php_config" --extension-dir)" || fail "$php_config does not run; run make first, or give EXTENSION_DIR"
fi

for path in "$PREFIX" "$RUNTIME_ROOT" "$SYSCONFDIR" "$EXTENSION_DIR"; do
    [ "${path:0:1}" = / ] || fail "\"$path\" must be an absolute path"
done

export BUILD PREFIX RUNTIME_ROOT SYSCONFDIR EXTENSION_DIR WEB_GROUP
log_folder="${DESTDIR:-}$RUNTIME_ROOT/log/quorbit"
agent_log="$log_folder/php-agent.log"
settings="$log_folder/applications.conf"    # made from the starter when there is none, with an account of its own
starter="${DESTDIR:-}$PREFIX/share/quorbit/applications.conf"

# Each @NAME@ of standard input becomes the variable of that name.
fill_in() {
    perl -pe 's/\@([A-Z_]+)\@/$ENV{$1} \/\/ die "$1 is not set\n"/ge'
}

# The rows of packaging/files.list as "MODE SOURCE PLACE", without DESTDIR: those of one package, or without a name what
# `make install` places.
rows() {
    awk -v wanted="${1:-}" '/^\[package\]/ { in_package = 1 }
        NF != 4 || /^#/ { next }
        (wanted == "" ? !in_package : $1 == wanted) { print $2, $3, $4 }' packaging/files.list | fill_in
}
