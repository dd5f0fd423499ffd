# Two commands for a fresh Debian 12 machine:
#   make run    install what is missing, build the release configuration, start the service
#   make test   install what is missing, build, run the whole test suite
PRESET ?= default
JOBS   ?= $(shell nproc)

.PHONY: deps build test run install bench clean

deps:
	@scripts/install-deps

build: deps
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET)

run: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	./build/release/programs/vantrel

install: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	cmake --install build/release

bench: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	./build/release/bench/vantrel-bench

clean:
	rm -rf build
