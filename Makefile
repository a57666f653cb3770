# The two commands of the README: `make demo` and `make test`. Each installs
# what is missing (tools/bootstrap.sh), configures and builds, then runs.
BUILD   ?= build
JOBS    ?= $(shell nproc)
PREFIX  ?= /usr/local
CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all bootstrap build demo view test test-unit test-race test-asan test-fuzz fuzz-build bench fuzz coverage install clean

all: build

bootstrap:
	@tools/bootstrap.sh

build: bootstrap
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j $(JOBS)

# The whole library at work on the bundled sample; everything lands in out/.
demo: build
	tools/demo.sh $(BUILD) out

# The viewer on the sample (needs a display).
view: build
	$(BUILD)/tqfplay view samples/demo.tqf

# Every test: the plain build, the race tests under ThreadSanitizer and the
# whole suite under AddressSanitizer with UndefinedBehaviorSanitizer.
test: test-unit test-race test-asan test-fuzz

test-unit: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

test-race: bootstrap
	cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQF_SANITIZE=thread
	cmake --build build-tsan -j $(JOBS) --target race_tests
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
	  ctest --test-dir build-tsan --output-on-failure -j $(JOBS) -L race

test-asan: bootstrap
	cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQF_SANITIZE="address,undefined"
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS="detect_leaks=1:abort_on_error=1" UBSAN_OPTIONS="halt_on_error=1:print_stacktrace=1" \
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD)/bench_*; do [ -x "$$b" ] && { echo "== $$b"; "$$b"; }; done; true

# The fuzz targets under clang with AddressSanitizer: `make test` runs each for
# a short while, `make fuzz` for FUZZ_SECONDS each.
FUZZ_SECONDS ?= 60
FUZZ_SMOKE_SECONDS ?= 20

fuzz-build: bootstrap
	@tools/bootstrap.sh clang libclang-rt-14-dev
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DTQF_SANITIZE=address -DTQF_BUILD_FUZZERS=ON -DTQF_BUILD_TESTS=OFF \
	  -DTQF_BUILD_TOOLS=OFF -DTQF_BUILD_BENCHMARKS=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets

test-fuzz: fuzz-build
	tools/fuzz.sh $(FUZZ_SMOKE_SECONDS) build-fuzz

fuzz: fuzz-build
	tools/fuzz.sh $(FUZZ_SECONDS) build-fuzz

# Line coverage per folder: the whole suite on an unoptimised --coverage
# build, read by gcovr.
coverage: bootstrap
	@tools/bootstrap.sh gcovr
	rm -rf build-coverage  # notes of objects no longer built would be read too
	cmake -S . -B build-coverage -DCMAKE_BUILD_TYPE=Debug -DTQF_COVERAGE=ON
	cmake --build build-coverage -j $(JOBS)
	find build-coverage -name '*.gcda' -delete
	ctest --test-dir build-coverage --output-on-failure -j $(JOBS)
	tools/coverage.sh build-coverage

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) build-tsan build-asan build-fuzz build-coverage
