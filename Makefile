# Front door. `make test` installs dependencies, builds and runs every test;
# `make demo` brings up a three-device lab and plays the grouping scenario.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build test demo bench bench-link bench-lab soak clean

all: build

deps:
	bash scripts/install-deps

configure: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 300

demo: build
	bash scripts/demo

bench: build
	bash scripts/bench

bench-link: build
	bash scripts/bench-link

bench-lab: build
	bash scripts/bench-lab

soak: build
	bash scripts/soak

clean:
	rm -rf $(BUILD_DIR)
