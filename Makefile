# The two commands: `make test` and `make demo`. Both install a missing build
# dependency themselves (Debian packages, when run as root).
BUILD        ?= build
BUILD_ASAN   ?= build-asan
BUILD_FUZZ   ?= build-fuzz
BUILD_COV    ?= build-cov
PREFIX       ?= /usr/local
JOBS         ?= $(shell nproc 2>/dev/null || echo 2)
GENERATOR    := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")
CMAKE_FLAGS  ?=
FUZZ_SECONDS ?= 20

BUILD_DEPS := cmake:cmake g++:g++ make:make pkg-config:pkg-config
BUILD_LIBS := /usr/include/gtest/gtest.h:libgtest-dev /usr/include/gmock/gmock.h:libgmock-dev \
              /usr/include/benchmark/benchmark.h:libbenchmark-dev
BENCH_LIBS := /usr/include/event2/event.h:libevent-dev /usr/include/uv.h:libuv1-dev \
              /usr/include/boost/dynamic_bitset.hpp:libboost-dev /usr/include/roaring/roaring.h:libroaring-dev \
              inotifywait:inotify-tools

.PHONY: all deps bench-deps build test test-sanitize demo bench plots fuzz tidy coverage install clean

all: build

# Lists the Debian packages whose command or header is missing, then installs them
# (as root) or says what to install.
define ensure_packages
	@missing=""; \
	for pair in $(1); do \
	  what=$${pair%%:*}; pkg=$${pair##*:}; \
	  case "$$what" in /*) [ -e "$$what" ] || missing="$$missing $$pkg";; \
	                   *) command -v "$$what" >/dev/null 2>&1 || missing="$$missing $$pkg";; esac; \
	done; \
	if [ -n "$$missing" ]; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then \
	    echo "Installing missing packages:$$missing"; \
	    (apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing) >/dev/null || \
	      { echo "error: could not install:$$missing" >&2; exit 1; }; \
	  else \
	    echo "error: missing build dependencies; install the Debian packages:$$missing" >&2; exit 1; \
	  fi; \
	fi
endef

deps:
	$(call ensure_packages,$(BUILD_DEPS) $(BUILD_LIBS))

bench-deps: deps
	$(call ensure_packages,$(BENCH_LIBS))

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) $(GENERATOR) $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-sanitize: deps
	cmake -S . -B $(BUILD_ASAN) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DVELL_SANITIZE=ON -DVELL_BUILD_BENCH=OFF
	cmake --build $(BUILD_ASAN) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(BUILD_ASAN) --output-on-failure -j $(JOBS)

demo: build
	$(call ensure_packages,socat:socat)
	@sh examples/run_demo.sh $(BUILD)

bench: bench-deps $(BUILD)/CMakeCache.txt
	cmake -S . -B $(BUILD) -DVELL_BUILD_BENCH=ON
	cmake --build $(BUILD) -j $(JOBS)
	@mkdir -p $(BUILD)/bench-json
	@for b in $(BUILD)/bench/*_bench; do echo "== $$b"; \
	  $$b --benchmark_min_time=0.2 --benchmark_out=$(BUILD)/bench-json/$$(basename $$b).json \
	    --benchmark_out_format=json || exit 1; done
	@echo "Results in Google Benchmark's JSON: $(BUILD)/bench-json/ ('make plots' draws them)"

# Scaling figures from the JSON of the last 'make bench' (runs it first when there is none).
plots:
	$(call ensure_packages,/usr/bin/python3:python3 /usr/lib/python3/dist-packages/matplotlib:python3-matplotlib)
	@ls $(BUILD)/bench-json/*.json >/dev/null 2>&1 || $(MAKE) bench
	/usr/bin/python3 tools/plot_bench.py $(BUILD)/bench-json docs/bench

fuzz:
	$(call ensure_packages,clang++:clang)
	CXX=clang++ cmake -S . -B $(BUILD_FUZZ) $(GENERATOR) -DVELL_BUILD_FUZZ=ON -DVELL_BUILD_TESTS=OFF \
	  -DVELL_BUILD_BENCH=OFF -DVELL_BUILD_TOOLS=OFF
	cmake --build $(BUILD_FUZZ) -j $(JOBS)
	@for f in $(BUILD_FUZZ)/fuzz/*_fuzz; do echo "== $$f"; $$f -max_total_time=$(FUZZ_SECONDS) -timeout=5 || exit 1; done

# clang-tidy with the checks of .clang-tidy over the framework and the library, as errors.
tidy: deps $(BUILD)/CMakeCache.txt
	$(call ensure_packages,clang-tidy:clang-tidy)
	@cmake -S . -B $(BUILD) >/dev/null
	@fail=0; for f in framework/Quor/*.cpp src/*.cpp; do \
	  clang-tidy -p $(BUILD) --quiet --extra-arg=-Wno-unknown-warning-option --extra-arg=-Wno-sign-conversion $$f 2>/dev/null || fail=1; \
	done; [ $$fail = 0 ] && echo "clang-tidy: clean" || { echo "clang-tidy: findings above" >&2; exit 1; }

# Line and branch coverage of framework/ and src/ under the whole suite (gcovr).
coverage: deps
	$(call ensure_packages,gcovr:gcovr)
	cmake -S . -B $(BUILD_COV) $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DVELL_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="--coverage -O0 -fprofile-update=atomic" -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage
	cmake --build $(BUILD_COV) -j $(JOBS)
	find $(BUILD_COV) -name '*.gcda' -delete
	ctest --test-dir $(BUILD_COV) --output-on-failure -j $(JOBS)
	gcovr -r . --object-directory $(BUILD_COV) --filter 'framework/' --filter 'src/' \
	  --exclude-unreachable-branches --exclude-throw-branches --print-summary \
	  --branches -o $(BUILD_COV)/coverage-branches.txt
	gcovr -r . --object-directory $(BUILD_COV) --filter 'framework/' --filter 'src/' \
	  --exclude-unreachable-branches --exclude-throw-branches -o $(BUILD_COV)/coverage.txt
	@echo "Per-file reports: $(BUILD_COV)/coverage.txt (lines), $(BUILD_COV)/coverage-branches.txt"

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_FUZZ) $(BUILD_COV)
