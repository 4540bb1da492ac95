# Two entry points: `make demo` runs the program against a simulated unit, `make test` runs the suite.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
CMAKE_ARGS ?=

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

clean:
	rm -rf $(BUILD_DIR)
