# What can be done here. CMake builds; scripts do the rest. docs/install.md explains the variables of install and uninstall.
#
#   PHP_CONFIG=/path/to/php-config   build for that engine instead of one of our own
#   ZQ_DAEMON_TIMEOUT_MS=2000        what a stalled daemon may cost per call (100), for tests on a busy machine
#   ZQ_TRACER_FLOOR_US=0             shortest call that enters a trace, for tests that want everything traced
#   E2E_WORKERS=3                    so many files of end-to-end tests at once in `make test`: half the time, on a busier machine

MAKEFLAGS += --no-print-directory
.NOTPARALLEL:
JOBS ?= $(shell nproc)
export PYTHONPATH := $(CURDIR)/tests
export PHP_CONFIG PREFIX DESTDIR RUNTIME_ROOT EXTENSION_DIR SYSCONFDIR WEB_GROUP

.PHONY: all demo test unit e2e outage in-flight wire-compare check sanitize bench bench-check fuzz random engine-suite soak install \
        uninstall packages test-install clean configure test-packages

all: configure
	@cmake --build build -j$(JOBS)

# WEB=1: leaves it running, with the page in the browser
demo: all
	@WEB="$(WEB)" demo/demo

# unit tests, plain and under the sanitizers, then the end-to-end tests; random programs and input for a while
test: test-packages all
	@engine/packages fuzz
	@tests/all

# the unit tests alone; T chooses: make unit T='StoreTest.*'
unit: test-packages all
	@cmake --build build -j$(JOBS) --target unit_tests
	@tests/unit/both $(T)

# the end-to-end tests, of the files T and the names that K chooses: make e2e T=test_nosql.py K=redis
e2e: test-packages all
	@cmake --build build -j$(JOBS) --target zqprof_patient zqprof_traced
	@/usr/bin/python3 -m pytest -q $(addprefix tests/e2e/,$(or $(T),.)) $(if $(K),-k '$(K)')

# a fleet's server killed in the middle of batches, and gone for two minutes under load: nothing is lost or counted twice, and PHP
# does not wait for it
outage: test-packages all
	@cmake --build build -j$(JOBS) --target zqprof_patient
	@QUORBIT_DOWN_S=120 /usr/bin/python3 -m pytest -q -s tests/e2e/test_clickhouse.py -k 'killed or down'

# ten thousand requests on FPM and on Apache, 200 at a time, each of which `quorbit now` has to show
in-flight: test-packages all
	@cmake --build build -j$(JOBS) --target zqprof_patient
	@QUORBIT_IN_FLIGHT=10000 /usr/bin/python3 -m pytest -q -s tests/e2e/test_now.py -k in_flight_each_is_shown_in_time

# what the agent sends that the one of the commit BASE does not, for all test pages, and the other way round
wire-compare: test-packages all
	@cmake --build build -j$(JOBS) --target zqprof_patient zqprof_traced
	@tests/wire_compare.py $(BASE)

# the unit tests under the address and undefined-behaviour sanitizers, on the plain engine
check: test-packages configure
	@cmake --preset sanitize --log-level=WARNING >/dev/null
	@cmake --build --preset sanitize -j$(JOBS)
	@ctest --preset sanitize --no-tests=error

# everything under sanitizers, on engines built for that: a quarter of an hour, and as much again for the engines the first time
sanitize: test-packages all
	@tests/sanitize/sanitize

# what the agent costs (bench/report writes docs/performance.md from such a run); bench-check fails when a call costs more
# instructions or stack than bench/budget.toml allows
bench: all
	@bench/all

bench-check: all
	@bench/instructions.py --check
	@bench/stack.py --check

# random input for the parsers, a minute each; FUZZ_SECONDS changes that
fuzz: configure
	@engine/packages fuzz
	@tests/fuzz/fuzz $(FUZZ_SECONDS)

# random applications with and without the agent; RANDOM_PROGRAMS says how many (500), RANDOM_SEED which (those of the day);
# RANDOM_ONLY replays one
random: configure
	@cmake --build build -j$(JOBS) --target zqprof_traced
	@tests/random/programs.py $(if $(RANDOM_PROGRAMS),--programs $(RANDOM_PROGRAMS)) $(if $(RANDOM_SEED),--seed $(RANDOM_SEED)) \
		$(if $(RANDOM_ONLY),--only $(RANDOM_ONLY))

# the engine's own test suite with and without the agent, and the differences; SUITE_MODES and SUITE_FOLDERS choose a part,
# for example SUITE_MODES="off cgi/traced" SUITE_FOLDERS="Zend ext/spl"
engine-suite: all
	@tests/engine/engine-suite $(if $(SUITE_MODES),--modes "$(SUITE_MODES)") $(SUITE_FOLDERS)

# the long runs: graceful reloads, a million requests, forks, Xdebug and opcache; SOAK_REQUESTS and SOAK_RELOADS shorten them
soak: test-packages all
	@cmake --build build -j$(JOBS) --target zqprof_patient
	@tests/soak/soak

# These two use what `make` built and build nothing themselves: they run as root, whose cache is another one.
install uninstall:
	@packaging/$@

# Debian packages and a tarball, in build/package/packages
packages: configure
	@engine/packages package
	@packaging/packages

# the packages on a Debian 12 that has nothing else, typed as docs/install.md has it, up to their removal; needs root
test-install: packages
	@engine/packages test install
	@/usr/bin/python3 -m pytest -q tests/install

clean:
	@rm -rf build

# A copied or moved checkout brings what CMake remembers of another folder: it is dropped.
configure:
	@engine/packages build
	@engine/find build/engine
	@for cache in build/CMakeCache.txt build/*/CMakeCache.txt; do \
		[ ! -f $$cache ] || [ "$$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' $$cache)" -ef . ] || \
		rm -rf $${cache%Cache.txt}Files $$cache; done
	@cmake --preset default --log-level=WARNING -DZQ_DAEMON_TIMEOUT_MS="$(ZQ_DAEMON_TIMEOUT_MS)" \
		-DZQ_TRACER_FLOOR_US="$(ZQ_TRACER_FLOOR_US)" >/dev/null

test-packages:
	@engine/packages test
