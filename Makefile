# The two commands: `make demo` runs the demo, `make test` builds and passes
# every test. Both install the Debian packages they need first.

BUILD_DIR ?= build
ASAN_DIR ?= build-asan
TSAN_DIR ?= build-tsan
JOBS ?= $(shell nproc)
# Development builds treat warnings as errors; a plain CMake build does not.
DEV_FLAGS ?= -DCMAKE_COMPILE_WARNING_AS_ERROR=ON
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo $(DEV_FLAGS)
# The development build and its tests include the Python package.
PYTHON_FLAGS ?= -DMARIVANE_BUILD_PYTHON=ON

FUZZ_DIR ?= build-fuzz
FUZZ_SECONDS ?= 600

SOAK_DIR ?= /tmp/mvlog-soak
BENCH_DIR ?= build-bench

.PHONY: all deps build test sanitize asan tsan fuzz soak bench demo install clean release package format format-check

RELEASE_DIR ?= build-release
PACKAGE_DIR ?= build-package
# The project's own C and C++ sources, for clang-format.
FORMAT_FILES = $(shell git ls-files '*.c' '*.h' '*.cpp' '*.hpp' 2>/dev/null)

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS) $(PYTHON_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole suite, then
# ThreadSanitizer over every suite that runs threads: the player, the store's
# waits for other connections and live reading, the database layer, the
# derived files, the recorder and mvlog view's server.
sanitize: asan tsan

asan: deps
	cmake -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DMARIVANE_SANITIZE="address;undefined" $(DEV_FLAGS)
	cmake --build $(ASAN_DIR) -j $(JOBS)
	cd $(ASAN_DIR) && ctest --output-on-failure -j $(JOBS)

tsan: deps
	cmake -S . -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DMARIVANE_SANITIZE=thread $(DEV_FLAGS)
	cmake --build $(TSAN_DIR) -j $(JOBS) --target playback_tests store_tests services_tests algorithms_tests concurrency_tests recorder_tests view_server_tests
	cd $(TSAN_DIR) && ctest --output-on-failure -j $(JOBS) -L 'playback_tests|store_tests|services_tests|algorithms_tests|concurrency_tests|recorder_tests|view_server_tests'

# libFuzzer targets under ASan+UBSan, each run for FUZZ_SECONDS (CI: 60).
fuzz:
	@./scripts/install-deps.sh clang libclang-rt-14-dev
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(DEV_FLAGS) \
		-DMARIVANE_SANITIZE="address;undefined" -DMARIVANE_BUILD_FUZZERS=ON \
		-DMARIVANE_BUILD_TESTS=OFF -DMARIVANE_BUILD_EXAMPLES=OFF
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target fuzz_open_file fuzz_uncompress fuzz_operations \
		fuzz_tool_commands make_corpus
	./fuzz/run-fuzzers.sh $(FUZZ_DIR) $(FUZZ_SECONDS)

# A million small and ten thousand 1 MiB entries: record, read back, slice,
# replay; peak memory per stage. Then a twentieth of it under ASan for leaks.
soak: build
	cmake --build $(BUILD_DIR) -j $(JOBS) --target soak
	./$(BUILD_DIR)/tests/soak/soak $(SOAK_DIR)
	cmake -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DMARIVANE_SANITIZE="address;undefined" $(DEV_FLAGS)
	cmake --build $(ASAN_DIR) -j $(JOBS) --target soak
	ASAN_OPTIONS=detect_leaks=1 ./$(ASAN_DIR)/tests/soak/soak $(SOAK_DIR) 20

# Release build of the libraries and the benchmark, then one run: the library
# beside a raw SQLite/zstd baseline, with ratios and targets (a few minutes);
# mvlog view's server and its page in headless Chromium on 5M entries; then
# the Python package beside the C++ reads it wraps.
bench: deps
	cmake -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DMARIVANE_BUILD_BENCH=ON \
		-DMARIVANE_BUILD_TESTS=OFF -DMARIVANE_BUILD_TOOLS=ON $(PYTHON_FLAGS)
	cmake --build $(BENCH_DIR) -j $(JOBS) --target marivane_bench marivane_view_bench mvlog marivane_python_core marivane_python_files
	./$(BENCH_DIR)/bench/marivane_bench
	./$(BENCH_DIR)/bench/marivane_view_bench
	PYTHONPATH=$(BENCH_DIR)/python /usr/bin/python3 bench/view_scrubbing.py $(BENCH_DIR)/tools/mvlog
	PYTHONPATH=$(BENCH_DIR)/python /usr/bin/python3 python/bench/bench_python.py

# Builds only the tool (no tests, no Python module), so the first output
# comes in a couple of minutes on a fresh machine; `make test` builds the rest.
demo: deps
	cmake -S . -B $(BUILD_DIR) $(CMAKE_FLAGS) $(PYTHON_FLAGS)
	cmake --build $(BUILD_DIR) -j $(JOBS) --target mvlog
	./$(BUILD_DIR)/tools/mvlog demo

install: build
	cmake --install $(BUILD_DIR) --prefix $(or $(PREFIX),/usr/local)

# An optimised build with warnings as errors: optimisers warn differently.
release: deps
	cmake -S . -B $(RELEASE_DIR) -DCMAKE_BUILD_TYPE=Release $(DEV_FLAGS)
	cmake --build $(RELEASE_DIR) -j $(JOBS)

# Debian packages of a Release build: libmarivane-logging4 (the libraries, in
# the multiarch directory), libmarivane-logging-dev (headers, pkg-config, CMake
# package), mvlog (with its manual pages) and python3-marivane-logging, as
# $(PACKAGE_DIR)/*.deb; then the package check on them, lintian included.
package: deps
	cmake -S . -B $(PACKAGE_DIR) -DCMAKE_BUILD_TYPE=Release $(DEV_FLAGS) $(PYTHON_FLAGS) \
		-DMARIVANE_BUILD_TESTS=OFF -DMARIVANE_BUILD_EXAMPLES=OFF -DMARIVANE_DEBIAN_LAYOUT=ON
	cmake --build $(PACKAGE_DIR) -j $(JOBS)
	cd $(PACKAGE_DIR) && cpack -G DEB
	bash tests/package/package_smoke.sh $(PACKAGE_DIR) tests/install/consumer \
		$$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' $(PACKAGE_DIR)/CMakeCache.txt)

format:
	@./scripts/install-deps.sh clang-format
	clang-format -i $(FORMAT_FILES)

# Fails when any source differs from .clang-format's layout.
format-check:
	@./scripts/install-deps.sh clang-format
	clang-format --dry-run --Werror $(FORMAT_FILES)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR) $(FUZZ_DIR) $(BENCH_DIR) $(RELEASE_DIR)
