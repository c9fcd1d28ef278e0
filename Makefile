# The words that people type. Everything else is CMake's.
.DEFAULT_GOAL := build
.PHONY: deps build run test asan asan-test bench lint format clean

JOBS ?= $(shell nproc)

deps:
	@scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

run: build
	@scripts/run-family

test: build
	@ctest --preset release

asan: deps
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)

asan-test: asan
	@ctest --preset asan

bench:
	@scripts/install-deps --bench
	@cmake --preset bench >/dev/null
	@cmake --build --preset bench -j $(JOBS)
	@scripts/bench

lint: deps
	@scripts/lint

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	@rm -rf build build-debug build-asan build-bench
