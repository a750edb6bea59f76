# The two commands of the project: `make run` and `make test`.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
PORT ?= 8080

.PHONY: all deps build asan test unit integration run bench clean

all: build

deps:
	@scripts/deps.sh

build: deps
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build -j$(JOBS)

asan: deps
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUELM_SANITIZE=ON >/dev/null
	@cmake --build build-asan -j$(JOBS)

# Every suite against the release build, then again against the sanitizer build.
test: build asan
	@scripts/test.sh build build-asan

run: build
	@scripts/run.sh $(PORT)

bench: build
	@scripts/bench.sh

clean:
	rm -rf build build-asan run
