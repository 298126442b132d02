# Convenience wrapper around CMake: `make run` and `make test` are all a newcomer needs.
BUILD ?= build
GENERATOR := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")

.PHONY: all build run test test-asan test-tsan fuzz-build fuzz fuzz-long bench package clean

all: build

# Builds the programs, and the tests when GoogleTest is installed.
build:
	cmake -S . -B $(BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j2

# Starts the panel simulator and the engine together and connects them. Only
# the two programs are built, so a newcomer does not wait for the tests.
run:
	cmake -S . -B $(BUILD) $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j2 --target vorcore vorpanel-sim
	tools/demo.sh $(BUILD)

# The browser tests' driver (playwright-core, no browser download). Where the
# npm registry cannot be reached this gives up within a minute with one line,
# and the C++ suites still build and run; the console test then fails, naming
# its missing driver. (The subshell waits for timeout itself, so a notice that
# npm had to be killed goes to the log, not to the screen.)
JS_DEPS := tests/js/node_modules/.installed
NPM_LOG := $(BUILD)/npm-ci.log
$(JS_DEPS): tests/js/package-lock.json
	@mkdir -p $(BUILD); \
	if ! command -v npm >/dev/null 2>&1; then \
		echo "npm not found: the console test needs nodejs and npm (apt-get install nodejs npm)"; \
	else \
		(cd tests/js && timeout -k 5 50 npm ci --no-audit --no-fund; exit $$?) >$(NPM_LOG) 2>&1; status=$$?; \
		if [ $$status -eq 0 ]; then \
			touch $@; \
		elif [ $$status -eq 124 ] || [ $$status -eq 137 ]; then \
			echo "npm ci gave up after 50 s (is registry.npmjs.org reachable?): the console test needs playwright-core; run 'cd tests/js && npm ci' where it is"; \
		else \
			echo "npm ci failed (see $(NPM_LOG)): the console test needs playwright-core; run 'cd tests/js && npm ci' where registry.npmjs.org is reachable"; \
		fi; \
	fi

# Builds everything and runs every test.
test: build $(JS_DEPS)
	cd $(BUILD) && ctest --output-on-failure

# The minute-long silence watchdog test runs once, in the plain suite.
SANITIZER_SKIP := SilenceRestarts
# Test programs of the code that runs on both threads.
THREADED_TESTS := queue_to_dev_test http_server_test exchange_test dev_parser_test status_test \
	logs_events_test config_test engine_config_test engine_jobs_test link_record_test

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan: $(JS_DEPS)
	cmake -S . -B $(BUILD)-asan $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DVORCORE_ASAN=ON >/dev/null
	cmake --build $(BUILD)-asan -j2
	cd $(BUILD)-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
		ctest --output-on-failure -E $(SANITIZER_SKIP)

# The threaded parts under ThreadSanitizer.
test-tsan:
	cmake -S . -B $(BUILD)-tsan $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DVORCORE_TSAN=ON >/dev/null
	cmake --build $(BUILD)-tsan -j2 --target $(THREADED_TESTS)
	cd $(BUILD)-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -L threaded -E $(SANITIZER_SKIP)

# The fuzz targets (fuzz/), built with clang++ and libFuzzer, AddressSanitizer
# and UndefinedBehaviorSanitizer; run as nobody when started as root.
fuzz-build:
	cmake -S . -B $(BUILD)-fuzz $(GENERATOR) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DVORCORE_FUZZ=ON -DVORCORE_TESTS=OFF >/dev/null
	cmake --build $(BUILD)-fuzz -j2

# Each target for 10 s (CI).
fuzz: fuzz-build
	fuzz/run.sh $(BUILD)-fuzz --seconds 10

# Each target for 10 million executions, one after the other: hours, for a
# developer's machine. The corpora grow in $(BUILD)-fuzz/fuzz-work/ from run to run.
fuzz-long: fuzz-build
	fuzz/run.sh $(BUILD)-fuzz --runs 10000000

# Every benchmark, in Release mode: the configuration, journal, cipher and
# link benchmarks, then the HTTP side against nginx with wrk (about 15 minutes
# in all; nginx and wrk are Debian packages).
bench:
	cmake -S . -B $(BUILD)-bench $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DVORCORE_BENCH=ON -DVORCORE_TESTS=OFF >/dev/null
	cmake --build $(BUILD)-bench -j2
	for b in $(BUILD)-bench/*_bench; do $$b || exit 1; done
	python3 bench/http_bench.py $(BUILD)-bench

# The Debian package vorcore_<version>_amd64.deb, from a Release build of the
# programs alone (no test libraries needed), in $(BUILD)-package/. It is
# optimised with -O2, as Debian builds its packages (GCC 12 at -O3 warns
# falsely inside libstdc++'s string copies).
package:
	cmake -S . -B $(BUILD)-package $(GENERATOR) -DCMAKE_BUILD_TYPE=Release -DVORCORE_TESTS=OFF \
		"-DCMAKE_CXX_FLAGS_RELEASE=-O2 -DNDEBUG" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
	cmake --build $(BUILD)-package -j2
	cd $(BUILD)-package && cpack -G DEB

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-tsan $(BUILD)-fuzz $(BUILD)-bench $(BUILD)-package
