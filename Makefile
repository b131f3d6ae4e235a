# Front end over CMake.
#   make demo                 set up, build, run the main job
#   make test                 set up, build, run every test; then again under ASan+UBSan
#   make install PREFIX=dir   install headers, libraries, pkg-config file, CMake package
#   make bench                run the benchmarks

PREFIX ?= /usr/local
JOBS   ?= $(shell nproc 2>/dev/null || echo 2)
BUILD  ?= build
ASAN_BUILD ?= build-asan

CMAKE_COMMON = -DDVS_LOCK_RANK_CHECK=ON

.PHONY: all setup build build-asan demo test test-plain test-asan install bench clean

all: build

setup:
	@bash scripts/setup.sh

$(BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_COMMON)

$(ASAN_BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DDVS_SANITIZE=ON -DDVS_BUILD_BENCH=OFF $(CMAKE_COMMON)

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

build-asan: setup $(ASAN_BUILD)/CMakeCache.txt
	cmake --build $(ASAN_BUILD) -j $(JOBS)

demo: build
	@bash tools/demo.sh $(BUILD)

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

test: test-plain test-asan

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

bench: build
	$(BUILD)/bench/dvs_bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
