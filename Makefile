# Two commands do everything on a fresh Debian machine:
#   make demo   bootstrap, build, and a real session on the default datastore
#   make test   bootstrap, build and run every test
# Further targets: build, asan (sanitizer build + tests), bench, bench-cluster
# (the cluster figures; the generated store is kept in CLUSTER_DIR), bench-odbc
# (the ODBC extension on a private PostgreSQL server), install, format,
# fuzz (libFuzzer targets, built with clang in build-fuzz; README "Fuzzing").

BUILD      ?= build
ASAN_BUILD ?= build-asan
BENCH_BUILD ?= build-bench
FUZZ_BUILD ?= build-fuzz
CLUSTER_DIR ?= $(BENCH_BUILD)/cluster
# Every unit is instrumented for coverage and checked by ASan and UBSan; only
# the fuzz programs link libFuzzer itself.
FUZZ_FLAGS := -g -O1 -fno-omit-frame-pointer -fsanitize=fuzzer-no-link,address,undefined \
              -fno-sanitize-recover=all
JOBS       ?= $(shell nproc)
PREFIX     ?= /usr/local

.PHONY: all bootstrap configure build test asan bench bench-cluster bench-odbc fuzz demo install format format-check clean

all: build

bootstrap:
	@scripts/bootstrap

configure: bootstrap
	cmake --preset dev -B $(BUILD)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

asan: bootstrap
	cmake --preset asan -B $(ASAN_BUILD)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)

bench: bootstrap
	cmake --preset release -B $(BENCH_BUILD) -DVESK_BUILD_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	@for b in $(BENCH_BUILD)/bench/bench_*; do [ -x "$$b" ] && "$$b" || exit 1; done

bench-cluster: bootstrap
	cmake --preset release -B $(BENCH_BUILD) -DVESK_BUILD_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target bench_cluster
	VESK_CLUSTER_DIR=$(abspath $(CLUSTER_DIR)) $(BENCH_BUILD)/bench/bench_cluster $(BENCH_ARGS)

bench-odbc: bootstrap
	cmake --preset release -B $(BENCH_BUILD) -DVESK_BUILD_BENCH=ON
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target bench_odbc
	$(BENCH_BUILD)/bench/bench_odbc

fuzz: bootstrap
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_FUZZ=ON \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_C_FLAGS="$(FUZZ_FLAGS)" -DCMAKE_CXX_FLAGS="$(FUZZ_FLAGS)"
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target vesk_fuzzers
	cd $(FUZZ_BUILD) && ctest --output-on-failure -R '^fuzz\.'

demo: build
	@scripts/demo $(BUILD)/stage

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

format-check:
	git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD)
