# Front door of the project: `make run`, `make test`, `make build`.
# Each target installs missing Debian packages (as root) and configures CMake itself.

PACKAGES := cmake g++ make pkg-config libczmq-dev libzmq3-dev libxml2-dev \
            libsqlite3-dev libgtest-dev sqlite3 iproute2
BUILD_DIR := build
TEST_DIR := build-test
JOBS ?= $(shell nproc)

.PHONY: all deps build run test bench format clean

all: build

deps:
	@missing=""; \
	for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ]; then \
	    echo "Installing:$$missing"; \
	    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	  else \
	    echo "Missing packages. Run: sudo apt-get install -y$$missing"; exit 1; \
	  fi; \
	fi

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release -DVORN_TESTS=OFF
	cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	tools/demo.sh $(BUILD_DIR)

test: deps
	cmake -S . -B $(TEST_DIR) -DCMAKE_BUILD_TYPE=Debug -DVORN_SANITIZE=ON -DVORN_TESTS=ON
	cmake --build $(TEST_DIR) -j $(JOBS)
	cd $(TEST_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

# A quicker run: make bench HANDSHAKE_NODES=2000 FLOOD_REQUESTS=100000
HANDSHAKE_NODES ?= 10000
FLOOD_REQUESTS ?= 1000000

bench: build
	$(BUILD_DIR)/bench/ingest
	$(BUILD_DIR)/bench/node
	$(BUILD_DIR)/bench/handshake -n $(HANDSHAKE_NODES)
	$(BUILD_DIR)/bench/pub_ack_flood -n $(FLOOD_REQUESTS)

format:
	git ls-files '*.cc' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(TEST_DIR)
