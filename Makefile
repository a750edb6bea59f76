# The two commands of the project: `make run` and `make test`.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
PORT ?= 8080

.PHONY: all deps build asan test run bench fuzz clean

all: build

# `make run` and `make test` check for the packages (and install what is
# missing); a plain build asks only before its first configure, so that
# rebuilding never calls the package tools.
deps:
	@scripts/deps.sh

first-deps = $(if $(wildcard $(1)/CMakeCache.txt),,deps)

# A checkout that was copied or moved keeps build folders whose CMake cache
# names the old tree, which CMake refuses: such a build folder is removed
# and built afresh.
forget-moved-cache = @if [ -f $(1)/CMakeCache.txt ] && \
	  ! grep -qxF 'CMAKE_HOME_DIRECTORY:INTERNAL=$(CURDIR)' $(1)/CMakeCache.txt; then \
	  echo "$(1)/ was configured for another folder (a copied checkout): building it afresh"; \
	  rm -rf $(1); fi

build: $(call first-deps,build)
	$(call forget-moved-cache,build)
	@cmake -S . -B build -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build -j$(JOBS)

asan: $(call first-deps,build-asan)
	$(call forget-moved-cache,build-asan)
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQUELM_SANITIZE=ON >/dev/null
	@cmake --build build-asan -j$(JOBS)

# Every suite against the release build, then again against the sanitizer build.
test: deps
	@$(MAKE) --no-print-directory build asan
	@scripts/test.sh build build-asan
	@scripts/browser-test.sh build
	@scripts/fuzz.sh --short

run: deps
	@scripts/run.sh --check-port $(PORT)
	@$(MAKE) --no-print-directory build
	@scripts/run.sh $(PORT)

bench: build
	@scripts/bench.sh

# Every fuzz target for FUZZ_SECONDS each (clang, in build-fuzz/).
FUZZ_SECONDS ?= 60
fuzz: deps
	@scripts/fuzz.sh --time $(FUZZ_SECONDS)

# Removes the builds (build/, build-asan/, build-fuzz/, build-mutate/) and ./run (the
# gateway root of `make run`: its data model, sessions and logs).
clean:
	rm -rf build build-asan build-fuzz build-mutate run
