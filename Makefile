# Front door. `make test` installs dependencies, builds and runs every test;
# `make install` and `make package` install or package the build;
# `make demo` brings up a three-device lab and plays the grouping scenario.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test test-sanitize fuzz install package demo bench bench-link bench-lab bench-scale bench-house bench-json bench-instructions soak clean

all: build

deps:
	bash scripts/install-deps

# BUILD_TESTING=OFF leaves the test programs out, TARV_BENCH=OFF the
# benchmarks (make demo needs neither).
BUILD_TESTING ?= ON
TARV_BENCH ?= ON

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DBUILD_TESTING=$(BUILD_TESTING) -DTARV_BENCH=$(TARV_BENCH)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Every test of the release build, then the sanitizer run and a short run
# of every fuzzer on the instrumented build.
test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300
	bash scripts/test-sanitize
	bash scripts/fuzz $(TEST_FUZZ_SECONDS)

TEST_FUZZ_SECONDS ?= 20
FUZZ_SECONDS ?= 300

test-sanitize: deps
	bash scripts/test-sanitize

fuzz: deps
	bash scripts/fuzz $(FUZZ_SECONDS)

# make install [PREFIX=/usr] [DESTDIR=/path/to/image]; the prefix defaults
# to the one configured (/usr/local).
install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_DIR) $(if $(PREFIX),--prefix $(PREFIX))

# The Debian package, $(BUILD_DIR)/tarv-host_<version>_<arch>.deb.
package: build
	cmake --build $(BUILD_DIR) --target package

demo:
	$(MAKE) build BUILD_TESTING=OFF TARV_BENCH=OFF
	bash scripts/demo

bench: build
	bash scripts/bench

bench-link: build
	bash scripts/bench-link

bench-lab: build
	bash scripts/bench-lab

bench-scale: build
	bash scripts/bench-scale

bench-house: build
	bash scripts/bench-house

bench-json: build
	bash scripts/bench-json

bench-instructions: build
	bash scripts/bench-instructions

soak: build
	bash scripts/soak

clean:
	rm -rf $(BUILD_DIR) build-sanitize
