# Entry points for developers and CI. Every target first installs what is missing.
JOBS ?= 2
WERROR ?= OFF
CMAKE_FLAGS ?=
# ccache (installed by the setup script) makes rebuilds in fresh clones and sibling build folders cheap.
LAUNCHER := $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
export CCACHE_BASEDIR ?= $(CURDIR)

BUILD_DIR := build
SANITIZE_DIR := build-sanitize
REALTIME_DIR := build-realtime

.PHONY: deps build run test test-sanitize test-realtime bench format format-check clean

deps:
	@./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release -DHARLUNE_WERROR=$(WERROR) $(LAUNCHER) $(CMAKE_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)

# The window on the demo sound where there is a display to show it, the command line's summary elsewhere.
run: build
	@if [ -n "$$DISPLAY$$WAYLAND_DISPLAY" ]; then ./$(BUILD_DIR)/bin/harlune --demo; \
	else echo "No display to show the editor on (DISPLAY and WAYLAND_DISPLAY are unset); the demo sound's summary instead:"; \
	./$(BUILD_DIR)/bin/harlune-cli info --demo; fi

test: build
	cd $(BUILD_DIR) && ctest -j $(JOBS) --output-on-failure --timeout 600

test-sanitize: deps
	# -O1 with line tables only: the sanitizers need no more, and CI builds everything twice.
	cmake -S . -B $(SANITIZE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHARLUNE_SANITIZE=ON \
		-DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DHARLUNE_WERROR=$(WERROR) -DHARLUNE_BENCHMARKS=OFF $(LAUNCHER) $(CMAKE_FLAGS)
	cmake --build $(SANITIZE_DIR) -j $(JOBS)
	cd $(SANITIZE_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest -j $(JOBS) --output-on-failure --timeout 900

# The playback tests under clang's RealtimeSanitizer: the render callback is marked nonblocking,
# so any allocation, lock or blocking call on its path fails the run. Warnings stay advisory
# here: the project's warning set is tuned for g++.
test-realtime:
	@./scripts/install-deps.sh scripts/packages-realtime.txt
	CC=clang-22 CXX=clang++-22 cmake -S . -B $(REALTIME_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DHARLUNE_REALTIME_SANITIZE=ON -DHARLUNE_WERROR=OFF -DHARLUNE_BENCHMARKS=OFF $(LAUNCHER) $(CMAKE_FLAGS)
	cmake --build $(REALTIME_DIR) -j $(JOBS) --target harlune_engine_tests
	./$(REALTIME_DIR)/bin/harlune_engine_tests

bench: build
	./$(BUILD_DIR)/bin/harlune-bench

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

# Fails, naming each file and line, when a tracked source is not formatted as `make format` would.
format-check: deps
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(REALTIME_DIR)
