# Thin wrapper around CMake. `make demo` and `make test` install what is missing first.
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build demo test test-asan test-tsan fuzz bench format format-check install clean

# The build's own progress is enough; make's "Entering directory" lines are not.
MAKEFLAGS += --no-print-directory

all: build

deps:
	@tools/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@$(BUILD)/meridbsp demo --out demo-out

test: build
	@tools/install-deps.sh --test
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# AddressSanitizer + UndefinedBehaviorSanitizer, halting on the first error.
test-asan: deps
	@tools/install-deps.sh --test
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DMERIDBSP_SANITIZE=address,undefined \
	  -DMERIDBSP_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=halt_on_error=1:detect_leaks=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# ThreadSanitizer on the tests that build on several threads (the parallel collision and
# visibility builds against the single-threaded ones).
TSAN_TESTS ?= AnyNumberOfThreads|ClipPipeline|HostileMeshes
test-tsan: deps
	@cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMERIDBSP_SANITIZE=thread \
	  -DMERIDBSP_BUILD_BENCH=OFF -DMERIDBSP_BUILD_CLI=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS) --target collision_determinism_test determinism_test solid_test pipeline_test robustness_test
	@cd $(TSAN_BUILD) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tools/tsan-suppressions.txt" \
	  ctest --output-on-failure -j $(JOBS) -R '$(TSAN_TESTS)'

# Benchmarks side by side with the peer libraries: writes $(BUILD)/bench.json, prints the ratio table.
bench:
	@tools/install-deps.sh --bench
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release -DMERIDBSP_BUILD_BENCH=ON -DMERIDBSP_BENCH_PEERS=ON $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) --target meridbsp_bench -j $(JOBS)
	@# The table is printed even when a cross-check disagreed; the exit status still says so.
	@status=0; $(BUILD)/meridbsp_bench --benchmark_out=$(BUILD)/bench.json --benchmark_out_format=json || status=$$?; \
	  python3 bench/report.py $(BUILD)/bench.json && exit $$status

FUZZ_SECONDS ?= 60
# libFuzzer targets (clang, ASan + UBSan) in build-fuzz, each run FUZZ_SECONDS; nothing is merged into fuzz/corpus.
fuzz: deps
	@tools/run-fuzzers.sh $(FUZZ_SECONDS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

format-check:
	@git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

install: build
	@cmake --install $(BUILD) --prefix $(or $(PREFIX),/usr/local)

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD)
