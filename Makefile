# Two entry points: `make demo` runs the program against a simulated unit, `make test` runs the suite.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_ARGS ?=
BENCH_BUILD_DIR ?= build-bench

.PHONY: all deps configure build test test-all demo package clean

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

# Start-up, idle cost, upgrade overhead and memory (bench/), in a release-like build tree of its
# own; the table lands in $(BENCH_BUILD_DIR)/bench-results.md. See docs/performance.md.
.PHONY: bench
bench:
	@tools/install-deps.sh hyperfine time
	cmake -S . -B $(BENCH_BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD_DIR) -j $(JOBS) --target lumaxis-upgrade lumaxis-upgrade-virtual \
		lumaxis-virtual-unit
	bench/run-all.sh $(BENCH_BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)
