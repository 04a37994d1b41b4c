# Front door of the project: `make run`, `make test`, `make build`, `make package`, `make fuzz`.
# Each target installs missing Debian packages (as root) and configures CMake itself.

PACKAGES := cmake g++ make pkg-config libczmq-dev libzmq3-dev libxml2-dev \
            libsqlite3-dev libgtest-dev sqlite3 iproute2 \
            nlohmann-json3-dev libcpp-httplib-dev libcli11-dev libpq-dev \
            libxxhash-dev
# Only the tests use these: Prometheus' own parser reads vorn's /metrics and its
# promtool checks the README's configuration; a browser, driven by chromedriver,
# loads the status page (that test is skipped, saying why, without them).
# lintian checks the Debian packages, dpkg installs them (vorn-server needs
# adduser) and systemd-analyze reads their units.
TEST_PACKAGES := python3-prometheus-client prometheus postgresql lintian adduser systemd
# `make package`: CPack's DEB generator computes dependencies with
# dpkg-shlibdeps and finds the programs with file.
PACKAGE_TOOLS := dpkg-dev file
BROWSER_PACKAGES := chromium chromium-driver
BUILD_DIR := build
TEST_DIR := build-test
FUZZ_DIR := build-fuzz
FUZZ_SECONDS ?= 60
JOBS ?= $(shell nproc)

.PHONY: all deps test-deps package-deps build package run test fuzz bench format clean

all: build

# $(call install_missing,PACKAGES,IF_NOT_ROOT,IF_FAILED): installs what is missing.
define install_missing
missing=""; \
for p in $(1); do \
  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
done; \
if [ -n "$$missing" ]; then \
  if [ "$$(id -u)" = 0 ]; then \
    echo "Installing:$$missing"; \
    { apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; } $(3); \
  else \
    echo "Missing packages. Run: sudo apt-get install -y$$missing"; $(2); \
  fi; \
fi
endef

deps:
	@$(call install_missing,$(PACKAGES),exit 1)

test-deps: deps
	@$(call install_missing,$(TEST_PACKAGES),exit 1)
	@$(call install_missing,$(BROWSER_PACKAGES),true,|| echo "Could not install$$missing: its test will be skipped")

# CMake is configured once per build directory; after that `cmake --build`
# configures again by itself when a CMakeLists.txt changed, and only then.
$(BUILD_DIR)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DVORN_TESTS=OFF

$(TEST_DIR)/CMakeCache.txt: | test-deps
	cmake -S . -B $(TEST_DIR) -DCMAKE_BUILD_TYPE=Debug -DVORN_SANITIZE=ON -DVORN_TESTS=ON \
	  -DVORN_PACKAGE_DIR=$(abspath $(BUILD_DIR))

build: deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Debian packages of the Release build, into $(BUILD_DIR)/ (CMake's package
# target builds every program first).
package-deps: deps
	@$(call install_missing,$(PACKAGE_TOOLS),exit 1)

package: package-deps $(BUILD_DIR)/CMakeCache.txt
	cmake --build $(BUILD_DIR) -j $(JOBS) --target package

run: build
	tools/demo.sh $(BUILD_DIR)

# The package test checks and installs the packages of the Release build,
# not the sanitizer build's programs: they are built first.
test: test-deps package $(TEST_DIR)/CMakeCache.txt
	cmake --build $(TEST_DIR) -j $(JOBS)
	cd $(TEST_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

# libFuzzer comes with clang: its own build directory, every target for
# FUZZ_SECONDS seconds, one per core at a time (tools/fuzz.sh); FUZZ_TARGETS
# picks some of them, FUZZ_JOBS and FUZZ_ARGS reach tools/fuzz.sh as they are.
fuzz: PACKAGES += clang libclang-rt-14-dev
$(FUZZ_DIR)/CMakeCache.txt: | deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DVORN_FUZZ=ON -DVORN_TESTS=OFF

fuzz: deps $(FUZZ_DIR)/CMakeCache.txt
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_targets
	tools/fuzz.sh $(FUZZ_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# A quicker run: make bench HANDSHAKE_NODES=2000 FLOOD_REQUESTS=100000
HANDSHAKE_NODES ?= 10000
FLOOD_REQUESTS ?= 1000000

bench: build
	$(BUILD_DIR)/bench/ingest
	$(BUILD_DIR)/bench/node
	$(BUILD_DIR)/bench/cli
	$(BUILD_DIR)/bench/handshake -n $(HANDSHAKE_NODES)
	$(BUILD_DIR)/bench/handshake -n $(HANDSHAKE_NODES) -C
	$(BUILD_DIR)/bench/pub_ack_flood -n $(FLOOD_REQUESTS)
	$(BUILD_DIR)/bench/retention

format:
	git ls-files '*.cc' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(TEST_DIR) $(FUZZ_DIR)
