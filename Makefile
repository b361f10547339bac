# The front door. Each target does all that it needs, from a fresh Debian 12 machine.
#   make demo   run the main job on a private MariaDB and Redis, then remove everything
#   make demo-s3 a recording to a private object store and back; it installs one, of some 270 MB
#   make test   build and pass all tests but those of test-s3 and cluster-test
#   make test-s3 those with an object store: it installs one, of some 270 MB
#   make test-swift  the client against a second store, once per release and when signing changes
#   make test-page  those of the report's page, in a real browser
#   make cluster-test  replicas, fail-over, several nodes, and a platform of ACCOUNTS accounts (50,000)
#   make faults every fault at every call of a run; CASE=kill AT=3 for one fault, at the third call;
#               then faults-s3, a thousand kills of the transfer service and of its hosts (KILLS=1000)
#   make bench-s3 the transfer service beside other clients of an object store, which it installs
# Others: build, bench, lint, sanitize, coverage, fuzz, package, package-test, install, deps, format, clean.

SHELL := /bin/bash
JOBS ?= $(shell nproc)
BUILD := build/release
PREFIX ?= /usr/local
FUZZ_SECONDS ?= 60

# What an object store of one's own takes.
OBJECT_STORE = radosgw ceph-mon ceph-osd ceph-common

SOURCES = $(shell git ls-files --cached --others --exclude-standard '*.cpp' '*.h' '*.c')

.PHONY: all build demo demo-s3 test test-page test-s3 test-swift cluster-test bench bench-s3 faults \
  faults-s3 lint sanitize coverage fuzz deps package package-test install format clean
all: build

deps:
	@dev/install-deps

$(BUILD)/build.ninja: | deps
	cmake --preset release

build: deps $(BUILD)/build.ninja
	cmake --build --preset release --target installed

demo: deps $(BUILD)/build.ninja
	@cmake --build --preset release --target spoolcap-sandbox spoolcap-report-sandbox store_recording testbed -- --quiet
	@$(BUILD)/bin/testbed demo/demo

demo-s3: $(BUILD)/build.ninja
	@dev/install-deps $(OBJECT_STORE) curl
	@cmake --build --preset release \
	  --target spoolcap-transfer-sandbox recording testbed -- --quiet
	@$(BUILD)/bin/testbed --object-store demo/demo-s3

test: deps $(BUILD)/build.ninja
	cmake --build --preset release --target test_programs
	$(BUILD)/bin/testbed ctest --preset release -j $(JOBS)

# The report's page in a real browser, without which these tests are skipped.
test-page: deps $(BUILD)/build.ninja
	@dev/install-deps chromium-headless-shell
	cmake --build --preset release --target page_tests testbed
	SPOOLCAP_NEEDS_BROWSER=1 $(BUILD)/bin/testbed ctest --preset release -L page

test-s3: $(BUILD)/build.ninja
	@dev/install-deps $(OBJECT_STORE) haproxy
	cmake --build --preset release --target s3_tests kills_tests testbed
	$(BUILD)/bin/testbed --object-store ctest --preset s3 -j $(JOBS)

cluster-test: deps $(BUILD)/build.ninja
	cmake --build --preset release --target cluster_tests scale testbed
	$(BUILD)/bin/testbed ctest --preset cluster
	NSS_WRAPPER_PASSWD=tests/support/passwd NSS_WRAPPER_GROUP=tests/support/group \
	  $(BUILD)/bin/testbed $(BUILD)/bin/scale $(ACCOUNTS)

# Swift takes an access key that it does not know for a wrong signature, which one test tells apart.
test-swift: $(BUILD)/build.ninja
	@dev/install-deps swift-proxy swift-account swift-container swift-object memcached curl haproxy
	cmake --build --preset release --target s3_tests testbed
	$(BUILD)/bin/testbed dev/with-swift ctest --preset s3 -R '^Store\.' -E NamesWhatIsWrongWithAPlace

bench: deps $(BUILD)/build.ninja
	@dev/install-deps chromium-headless-shell
	cmake --build --preset release --target bench_programs
	$(BUILD)/bin/testbed bench/run $(BUILD)/bin

bench-s3: $(BUILD)/build.ninja
	@dev/install-deps $(OBJECT_STORE) haproxy rclone s3cmd awscli
	cmake --build --preset release --target transfer_bench_s3
	$(BUILD)/bin/testbed --object-store bench/run $(BUILD)/bin bench_s3

faults: deps $(BUILD)/build.ninja
	cmake --build --preset release --target faults_tests testbed
	SPOOLCAP_FAULT=$(or $(AT),all) $(BUILD)/bin/testbed \
	  ctest --preset release -j $(JOBS) -R 'Campaign.*/$(CASE)'
	$(if $(CASE),,@$(MAKE) faults-s3)

faults-s3: $(BUILD)/build.ninja
	@dev/install-deps $(OBJECT_STORE)
	cmake --build --preset release --target kills_tests testbed
	SPOOLCAP_KILLS=$(or $(KILLS),1000) $(BUILD)/bin/testbed --object-store \
	  ctest --preset s3 --verbose -R '^Kills'

sanitize: deps
	@dev/install-deps $(OBJECT_STORE) haproxy
	cmake --preset sanitize
	cmake --build --preset sanitize
	build/sanitize/bin/testbed ctest --preset sanitize -j $(JOBS)
	build/sanitize/bin/testbed --object-store ctest --preset sanitize-s3 -j $(JOBS)
	cmake --preset sanitize-threads
	cmake --build --preset sanitize-threads
	build/sanitize-threads/bin/testbed ctest --preset sanitize-threads -j $(JOBS)
	build/sanitize-threads/bin/testbed --object-store ctest --preset sanitize-threads-s3 -j $(JOBS)

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

# Debian packages, in build/packages.
package:
	@dev/install-deps build-essential debhelper bash-completion scdoc lintian fakeroot
	@packaging/build-packages

# The packages in a Debian 12 of their own, which is kept in build/package-test: install, run, upgrade,
# remove, purge; and that two builds give the same bytes.
package-test: package
	@dev/install-deps mmdebstrap procps
	@DEB_BUILD_OPTIONS=nocheck packaging/build-packages build/packages-again/elsewhere >build/packages-again.log 2>&1 || \
	  { tail -n 40 build/packages-again.log; exit 1; }
	@packaging/same-packages build/packages build/packages-again/elsewhere
	@packaging/test-packages

install: build
	@packaging/install "$(DESTDIR)" "$(PREFIX)" "$(BUILD)"

clean:
	rm -rf build
