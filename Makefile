# Front door. `make test` installs dependencies, builds and runs every test;
# `make install` and `make package` install or package the build;
# `make demo` brings up a three-device lab and plays the grouping scenario.
# ARCH=arm64 or ARCH=armhf cross-builds for that Debian architecture into a
# build folder of its own (build-<arch>), with the toolchain file of
# cmake/toolchains; its tests run under qemu-user (make test-cross).
ARCH ?=
TOOLCHAIN_arm64 = cmake/toolchains/aarch64-linux-gnu.cmake
TOOLCHAIN_armhf = cmake/toolchains/arm-linux-gnueabihf.cmake
ifneq ($(ARCH),)
ifeq ($(TOOLCHAIN_$(ARCH)),)
$(error ARCH=$(ARCH): the cross builds are ARCH=arm64 and ARCH=armhf)
endif
BUILD_DIR ?= build-$(ARCH)
CROSS_CMAKE_ARGS = -DCMAKE_TOOLCHAIN_FILE=$(abspath $(TOOLCHAIN_$(ARCH)))
endif
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test test-cross check-package test-sanitize fuzz install package demo bench bench-link bench-lab bench-scale bench-house bench-json bench-instructions bench-instructions-qemu soak clean

all: build

deps:
	ARCH=$(ARCH) bash scripts/install-deps

# BUILD_TESTING=OFF leaves the test programs out, TARV_BENCH=OFF the
# benchmarks (make demo needs neither). A cross build has no benchmarks:
# they measure this machine (its namespaces, its parsers' libraries).
BUILD_TESTING ?= ON
ifneq ($(ARCH),)
TARV_BENCH ?= OFF
endif
TARV_BENCH ?= ON

configure: deps
	cmake -S . -B $(BUILD_DIR) $(CROSS_CMAKE_ARGS) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DBUILD_TESTING=$(BUILD_TESTING) -DTARV_BENCH=$(TARV_BENCH)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Every test of the release build, then the sanitizer run and a short run
# of every fuzzer on the instrumented build. Before them the arm64 cross
# build's module and host suites under qemu-user (make test-cross ARCH=arm64
# runs its api and tools suites too); it comes first because the release
# build's mixed lab (tst_LabMixedArch) runs that build's host.
TEST_CROSS_ARCH ?= arm64
TEST_CROSS_LABELS ?= module|host
test: build
	$(MAKE) test-cross ARCH=$(TEST_CROSS_ARCH) BUILD_DIR=build-$(TEST_CROSS_ARCH) CROSS_LABELS='$(TEST_CROSS_LABELS)'
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300
	bash scripts/test-sanitize
	bash scripts/fuzz $(TEST_FUZZ_SECONDS)

# The suites of a cross build (ARCH=arm64|armhf), run under qemu-user: the
# data model (api), the module, the host and the tools; only their targets
# are built (and the host and module the mixed lab runs; tarvctl with the
# tools). lab, browser and packaging drive this machine and run in the
# native build only.
CROSS_LABELS ?= api|module|host|tools
test-cross:
	@test -n "$(ARCH)" || { echo "make test-cross needs ARCH=arm64 or ARCH=armhf" >&2; exit 2; }
	$(MAKE) configure ARCH=$(ARCH) BUILD_DIR=$(BUILD_DIR) TARV_BENCH=OFF
	cmake --build $(BUILD_DIR) -j $(JOBS) --target tarv-host tarv_simpleGrouping $(if $(findstring tools,$(CROSS_LABELS)),tarvctl) \
	  $$(cd $(BUILD_DIR) && ctest -N -L '^($(CROSS_LABELS))$$' | sed -n 's/^ *Test *#[0-9]*: //p')
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600 -L '^($(CROSS_LABELS))$$'

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

# The Debian package, $(BUILD_DIR)/tarv-host_<version>_<arch>.deb; with
# ARCH=arm64|armhf that architecture's, in build-<arch>/.
package: build
	cmake --build $(BUILD_DIR) --target package

# Installs that package into an empty root and starts its host (under
# qemu-user for ARCH=arm64|armhf); needs root.
check-package: package
	bash scripts/check-package $(ARCH)

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

# The same counts for arm64 under qemu-user, in a build of its own
# (build-arm64-bench/). The method's check against callgrind on this
# machine: scripts/bench-instructions-qemu --arch x86-64.
bench-instructions-qemu:
	bash scripts/bench-instructions-qemu --arch $(or $(ARCH),arm64)

soak: build
	bash scripts/soak

clean:
	rm -rf $(BUILD_DIR) build-sanitize build-arm64 build-armhf
