# The words that people type. Everything else is CMake's.
.DEFAULT_GOAL := build
.PHONY: deps build run test torture model asan asan-test seeded-faults bench fuzz coverage lint format clean

JOBS ?= $(shell nproc)

deps:
	@scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

# Without the tests, which take most of the time.
run: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS) --target programs
	@scripts/run-family

test: build
	@ctest --preset release

# T: minutes; SEED: of the first round.
torture: build
	@TORTURE_MINUTES=$(or $(T),10) TORTURE_SEED=$(or $(SEED),1) \
	  build/bin/test_torture --gtest_filter=Torture.LongRun

# STEPS: writes, selects and patches in all; SEED: of the first tree.
model: build
	@MODEL_STEPS=$(or $(STEPS),1000000) MODEL_SEED=$(or $(SEED),1) build/bin/test_queries

asan: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)

asan-test: asan
	@ctest --preset asan

seeded-faults: deps
	@scripts/seeded-faults

bench:
	@scripts/install-deps --bench
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench -j $(JOBS)
	@scripts/bench

# T: seconds for each target.
fuzz:
	@scripts/install-deps --fuzz
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@scripts/fuzz $(or $(T),60)

coverage:
	@scripts/install-deps --coverage
	@cmake --preset coverage >/dev/null
	@cmake --build --preset coverage -j $(JOBS) --target test_mdb
	@scripts/coverage

lint: deps
	@scripts/lint

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	@rm -rf build build-debug build-asan build-bench build-fuzz build-coverage
