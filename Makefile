# Front end over CMake.
#   make demo                 set up, build, run the main job
#   make demo-fleet           eight simulated hosts saved to a three-member etcd cluster
#   make test                 set up, build, run every test; then again under ASan+UBSan;
#                             then the switch-state concurrency test under TSan
#   make install PREFIX=dir   install headers, libraries, pkg-config file, CMake package
#   make bench                build the benchmarks (Release, in $(REL_BUILD)) and print the
#                             table of each operation beside its same-run reference
#   make fuzz SECONDS=N       build the libFuzzer harnesses (clang) and run each for N seconds
#                             (RUNS=M: at most M executions each)

PREFIX ?= /usr/local
JOBS   ?= $(shell nproc 2>/dev/null || echo 2)
BUILD  ?= build
REL_BUILD  ?= build-rel
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
SECONDS    ?= 60
RUNS       ?= -1

CMAKE_COMMON = -DDVS_LOCK_RANK_CHECK=ON
TSAN_FLAGS   = -fsanitize=thread

.PHONY: all setup build build-asan build-tsan build-fuzz demo demo-fleet test test-plain \
	test-asan test-tsan test-fuzz fuzz install bench clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_COMMON)

$(REL_BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(REL_BUILD) -DCMAKE_BUILD_TYPE=Release

$(ASAN_BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DDVS_SANITIZE=ON -DDVS_BUILD_BENCH=OFF $(CMAKE_COMMON)

# ThreadSanitizer: only the threaded tests are built and run.
$(TSAN_BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDVS_BUILD_TOOLS=OFF \
	  -DDVS_BUILD_BENCH=OFF -DCMAKE_C_FLAGS=$(TSAN_FLAGS) -DCMAKE_CXX_FLAGS=$(TSAN_FLAGS) \
	  -DCMAKE_EXE_LINKER_FLAGS=$(TSAN_FLAGS) -DCMAKE_SHARED_LINKER_FLAGS=$(TSAN_FLAGS) \
	  $(CMAKE_COMMON)

# libFuzzer harnesses with ASan+UBSan: clang only; tools stay on for the
# seed corpus generator, tests and benchmarks are left out.
$(FUZZ_BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
	  -DCMAKE_CXX_COMPILER=clang++ -DDVS_BUILD_FUZZ=ON -DDVS_BUILD_TESTS=OFF -DDVS_BUILD_BENCH=OFF \
	  $(CMAKE_COMMON)

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

build-asan: setup $(ASAN_BUILD)/CMakeCache.txt
	cmake --build $(ASAN_BUILD) -j $(JOBS)

build-tsan: setup $(TSAN_BUILD)/CMakeCache.txt
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target state_concurrency_test hostlibs_test sim_test channel_socket_test configstore_idle_store_test \
	  configstore_document_batch_test configstore_load_test

build-fuzz: setup $(FUZZ_BUILD)/CMakeCache.txt
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all

demo: build
	@bash tools/demo.sh $(BUILD)

demo-fleet: build
	@bash tools/demo_fleet.sh $(BUILD)

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

test-tsan: build-tsan
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/tests/state/state_concurrency_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/platform/hostlibs/tests/hostlibs_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/tests/sim/sim_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/tests/kernel/channel_socket_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/platform/configstore/tests/configstore_idle_store_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/platform/configstore/tests/configstore_document_batch_test
	TSAN_OPTIONS=halt_on_error=1 $(TSAN_BUILD)/tests/configstore/configstore_load_test

# A short run of every harness, so that none of them rots.
test-fuzz: build-fuzz
	bash fuzz/run_fuzz.sh $(FUZZ_BUILD) 10

test: test-plain test-asan test-tsan test-fuzz

# Long campaigns: make fuzz SECONDS=600
fuzz: build-fuzz
	RUNS=$(RUNS) bash fuzz/run_fuzz.sh $(FUZZ_BUILD) $(SECONDS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# The best of BENCH_REPS runs of each row; the Google Benchmark JSON and
# the cost-per-port plot stay in $(REL_BUILD).  Run $(REL_BUILD)/bench/dvs_bench
# for every benchmark.
BENCH_REPS ?= 5
bench: setup $(REL_BUILD)/CMakeCache.txt
	cmake --build $(REL_BUILD) -j $(JOBS) --target dvs_bench
	python3 bench/report.py --bench $(REL_BUILD)/bench/dvs_bench --repetitions $(BENCH_REPS) \
	  --json $(REL_BUILD)/bench.json --svg $(REL_BUILD)/store_cost_per_port.svg

clean:
	rm -rf $(BUILD) $(REL_BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
