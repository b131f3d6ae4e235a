# Front end over CMake.
#   make demo                 set up, build, run the main job
#   make test                 set up, build, run every test; then again under ASan+UBSan;
#                             then the switch-state concurrency test under TSan
#   make install PREFIX=dir   install headers, libraries, pkg-config file, CMake package
#   make bench                run the benchmarks
#   make fuzz SECONDS=N       build the libFuzzer harnesses (clang) and run each for N seconds
#                             (RUNS=M: at most M executions each)

PREFIX ?= /usr/local
JOBS   ?= $(shell nproc 2>/dev/null || echo 2)
BUILD  ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
SECONDS    ?= 60
RUNS       ?= -1

CMAKE_COMMON = -DDVS_LOCK_RANK_CHECK=ON
TSAN_FLAGS   = -fsanitize=thread

.PHONY: all setup build build-asan build-tsan build-fuzz demo test test-plain test-asan test-tsan \
	test-fuzz fuzz install bench clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_COMMON)

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
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target state_concurrency_test hostlibs_test sim_test channel_socket_test

build-fuzz: setup $(FUZZ_BUILD)/CMakeCache.txt
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all

demo: build
	@bash tools/demo.sh $(BUILD)

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

# A short run of every harness, so that none of them rots.
test-fuzz: build-fuzz
	bash fuzz/run_fuzz.sh $(FUZZ_BUILD) 10

test: test-plain test-asan test-tsan test-fuzz

# Long campaigns: make fuzz SECONDS=600
fuzz: build-fuzz
	RUNS=$(RUNS) bash fuzz/run_fuzz.sh $(FUZZ_BUILD) $(SECONDS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

bench: build
	$(BUILD)/bench/dvs_bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
