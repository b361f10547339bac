# The front door. Each target does all that it needs, from a fresh Debian 12 machine.
#   make demo   run the main job on a private MariaDB and Redis, then remove everything
#   make test   build and pass all tests
#   make faults every fault at every call of a run; CASE=kill AT=3 for one fault, at the third call
# Others: build, bench, lint, sanitize, coverage, fuzz, install, deps, format, clean.

SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD := build/release
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60

SOURCES = $(shell git ls-files --cached --others --exclude-standard '*.cpp' '*.h' '*.c')

.PHONY: all build demo test bench faults lint sanitize coverage fuzz deps install format clean
all: build

deps:
	@dev/install-deps

$(BUILD)/build.ninja: | deps
	cmake --preset release

build: deps $(BUILD)/build.ninja
	cmake --build --preset release --target spoolcap spoolcap-report spoolcap_library

demo: deps $(BUILD)/build.ninja
	@cmake --build --preset release --target spoolcap-sandbox spoolcap-report-sandbox store_recording testbed -- --quiet
	@$(BUILD)/bin/testbed demo/demo

test: deps $(BUILD)/build.ninja
	cmake --build --preset release --target test_programs
	$(BUILD)/bin/testbed ctest --preset release -j $(JOBS)

bench: deps $(BUILD)/build.ninja
	cmake --build --preset release --target bench_programs
	$(BUILD)/bin/testbed bench/run $(BUILD)/bin

faults: deps $(BUILD)/build.ninja
	cmake --build --preset release --target faults_tests testbed
	SPOOLCAP_FAULT=$(or $(AT),all) $(BUILD)/bin/testbed \
	  ctest --preset release -j $(JOBS) -R 'Campaign.*/$(CASE)'

sanitize: deps
	cmake --preset sanitize
	cmake --build --preset sanitize
	build/sanitize/bin/testbed ctest --preset sanitize -j $(JOBS)
	cmake --preset sanitize-threads
	cmake --build --preset sanitize-threads
	build/sanitize-threads/bin/testbed ctest --preset sanitize-threads -j $(JOBS)

fuzz:
	@dev/install-deps clang libclang-rt-dev llvm
	cmake --preset fuzz
	cmake --build --preset fuzz
	@fuzz/run build/fuzz $(FUZZ_SECONDS)

# Counts of an earlier run would be added to.
coverage:
	@dev/install-deps gcovr
	cmake --preset coverage
	cmake --build --preset coverage
	find build/coverage -name '*.gcda' -delete
	@build/coverage/bin/testbed ctest --preset coverage -j $(JOBS); status=$$?; \
	  dev/coverage build/coverage; exit $$status

lint: deps $(BUILD)/build.ninja
	@lint/run $(BUILD) $(JOBS)

format:
	clang-format -i $(SOURCES)

install: build
	@packaging/install "$(DESTDIR)" "$(PREFIX)" "$(BUILD)"

clean:
	rm -rf build
