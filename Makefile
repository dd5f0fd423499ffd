# Two commands for a fresh Debian 12 machine:
#   make run    install what is missing, build the two programs, start the service
#   make install PREFIX=/opt/vantrel   build and install under PREFIX (default /usr/local)
#   make test   install what is missing, build, run the whole test suite
#   make fuzz   build the fuzz targets (clang-14, libFuzzer) and run each for SECONDS (60)
#   make windows        cross-build for Windows (mingw-w64; the libraries once, into a cache)
#   make test-windows   the same, then the tests under wine
#   make package-windows   the same, then build/windows/package/vantrel-<version>-win64.zip
PRESET ?= default
# Extra cache settings for the configure step, e.g. CMAKE_ARGS=-DVANTREL_WERROR=ON
CMAKE_ARGS ?=
JOBS   ?= $(shell nproc)
SECONDS ?= 60

.PHONY: deps build test run install bench fuzz clean windows-deps windows test-windows package-windows

deps:
	@scripts/install-deps

build: deps
	cmake --preset $(PRESET) $(CMAKE_ARGS)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET)

# Only the two programs are built for `run` and `install`; tests and benchmarks wait for `make test`.
PROGRAMS = vantrel_service vantrel_cli
# Where `make install` puts everything; the unit and the settings search follow it.
PREFIX ?= /usr/local

run: deps
	cmake --preset release $(CMAKE_ARGS)
	cmake --build --preset release -j $(JOBS) --target $(PROGRAMS)
	@echo
	@echo "The service starts below (Ctrl-C stops it). In another terminal, try:"
	@echo "  $(CURDIR)/build/release/programs/vantrel-cli whoami"
	@echo "  $(CURDIR)/build/release/programs/vantrel-cli listen --name bob"
	@echo "  $(CURDIR)/build/release/programs/vantrel-cli send bob@$$(hostname) hello"
	@echo "  $(CURDIR)/build/release/programs/vantrel-cli --help"
	@echo
	./build/release/programs/vantrel

install: deps
	cmake --preset release -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS)
	cmake --build --preset release -j $(JOBS) --target vantrel $(PROGRAMS)
	cmake --install build/release

bench: deps
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	./build/release/bench/vantrel-bench

fuzz: deps
	JOBS=$(JOBS) scripts/fuzz $(SECONDS)

# Two jobs at most for the libraries: they are built once and cached.
windows-deps: deps
	@scripts/build-windows-deps -j2

windows: windows-deps
	cmake --preset windows $(CMAKE_ARGS)
	cmake --build --preset windows -j $(JOBS)

test-windows: windows
	ctest --preset windows

package-windows: windows
	cmake --build --preset windows --target package_zip

clean:
	rm -rf build
