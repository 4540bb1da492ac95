# Two entry points: `make demo` runs the program against a simulated unit, `make test` runs the suite.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_ARGS ?=
FUZZ_SECONDS ?= 60
SANITIZER_CTEST_ARGS ?=
BENCH_BUILD_DIR ?= build-bench
DFU09_BUILD_DIR ?= build-dfu-0.9

.PHONY: all deps configure build test test-all demo package clean fuzz test-asan test-tsan bench \
	test-dfu-0.9

all: build

deps:
	@tools/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The slow label marks tests that wait out real time-outs; `make test-all` includes them.
test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -LE slow

test-all: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

demo: build
	tools/demo.sh $(BUILD_DIR)

# The Debian package: the program, the udev rule, the menu entry, icons and metadata.
package: build
	cd $(BUILD_DIR) && cpack -G DEB

# libFuzzer targets for the parsers of outside bytes (fuzz/), each run FUZZ_SECONDS on one core.
fuzz:
	@tools/install-deps.sh clang libclang-rt-14-dev
	cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
		-DCMAKE_C_COMPILER=clang -DLUMAXIS_FUZZ=ON -DLUMAXIS_BUILD_TESTS=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_all
	fuzz/run.sh build-fuzz $(FUZZ_SECONDS)

# The suite under sanitizers, each in its own build tree; see docs/hardening.md.
test-asan: deps
	tools/sanitizers/test.sh address build-asan $(JOBS) $(SANITIZER_CTEST_ARGS)

test-tsan: deps
	tools/sanitizers/test.sh thread build-tsan $(JOBS) $(SANITIZER_CTEST_ARGS)

# The whole-program suites against the virtual unit with Debian 11's dfu-util 0.9 carried instead
# of Debian 12's 0.11, in a build tree of its own; the package is fetched into that tree, not
# installed (tools/dfu-util-0.9.sh).
test-dfu-0.9: deps
	@tools/install-deps.sh debian-archive-keyring
	tools/dfu-util-0.9.sh $(DFU09_BUILD_DIR)/dfu-util-0.9 >/dev/null
	cmake -S . -B $(DFU09_BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) \
		-DLUMAXIS_DFU_UTIL_BINARY=$(abspath $(DFU09_BUILD_DIR))/dfu-util-0.9/usr/bin/dfu-util
	cmake --build $(DFU09_BUILD_DIR) -j $(JOBS) --target tst_program_virtual tst_cli_virtual \
		tst_virtualunit
	cd $(DFU09_BUILD_DIR) && ctest --output-on-failure -j $(JOBS) -LE slow \
		-R '^tst_(program_virtual|cli_virtual|virtualunit)'

# Start-up, idle cost, upgrade overhead and memory (bench/), in a release-like build tree of its
# own; the table lands in $(BENCH_BUILD_DIR)/bench-results.md. See docs/performance.md.
bench:
	@tools/install-deps.sh hyperfine time
	cmake -S . -B $(BENCH_BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD_DIR) -j $(JOBS) --target lumaxis-upgrade lumaxis-upgrade-virtual \
		lumaxis-virtual-unit
	bench/run-all.sh $(BENCH_BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
