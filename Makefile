# The two commands: `make run` starts an instance under ./var and sends it a first message; `make test` runs all tests.
# The rest is a thin front of CMake's presets.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
SECONDS ?= 30
MINUTES ?= 30

.PHONY: run test build install asan integer valgrind crash soak fuzz fuzz-afl bench check format clean

run: build
	scripts/run.sh $(if $(ONCE),--once)

build:
	scripts/packages.sh build
	cmake --preset release -DBRENTHAVEN_BENCH=OFF
	cmake --build build/release -j $(JOBS)

test:
	scripts/packages.sh test
	cmake --preset debug
	cmake --build build/debug -j $(JOBS)
	ctest --test-dir build/debug --output-on-failure -j $$(( 2 * $(JOBS) ))

asan:
	scripts/packages.sh test
	cmake --preset asan
	cmake --build build/asan -j $(JOBS)
	ctest --test-dir build/asan --output-on-failure -j $(JOBS)

# The same with clang's checks of integers: a value that loses bits without a cast ends the test.
integer:
	scripts/packages.sh test fuzz
	cmake --preset integer
	cmake --build build/integer -j $(JOBS)
	ctest --test-dir build/integer --output-on-failure -j $(JOBS)

valgrind:
	scripts/packages.sh test valgrind
	cmake --preset debug
	cmake --build build/debug -j $(JOBS)
	JOBS=$(JOBS) scripts/valgrind.sh $(TESTS)

# Kills at every call that changes something, power-cut states, and failing calls: the last line counts what was lost.
crash:
	scripts/packages.sh test
	cmake --preset debug
	cmake --build build/debug -j $(JOBS) --target crash
	build/debug/tests/crash/crash --jobs $(JOBS)

# The same and much more for hours; see docs/reliability.md.
soak:
	scripts/packages.sh test fuzz
	cmake --preset debug
	cmake --build build/debug -j $(JOBS) --target crash stress test_history test_property
	cmake --preset fuzz
	cmake --build build/fuzz -j $(JOBS) --target fuzz
	scripts/soak.sh $(MINUTES)

# Each fuzz target for SECONDS, or those in TARGETS. With FUZZ_OPTIONS=--adopt the tests' corpus grows.
fuzz:
	scripts/packages.sh test fuzz
	cmake --preset fuzz
	cmake --build build/fuzz -j $(JOBS) --target fuzz
	JOBS=$(JOBS) scripts/fuzz.sh $(FUZZ_OPTIONS) $(SECONDS) $(TARGETS)

# A second engine on the inputs that come from the network first.
fuzz-afl:
	scripts/packages.sh test fuzz afl
	cmake --preset afl
	cmake --build build/afl -j $(JOBS) --target fuzz
	JOBS=$(JOBS) scripts/fuzzafl.sh $(SECONDS) $(TARGETS)

bench:
	scripts/packages.sh test
	cmake --preset release -DBRENTHAVEN_BENCH=ON
	cmake --build build/release -j $(JOBS)
	bench/run.sh build/release

install: build
	cmake --install build/release --prefix $(PREFIX)

# clang-format and clang-tidy on every source of the tree.
check:
	scripts/packages.sh test check
	cmake --preset debug
	git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run --Werror
	git ls-files 'brenthaven/*.cpp' 'modules/*.cpp' 'dispatcher/*.cpp' 'command/*.cpp' | \
	  xargs -P $(JOBS) -n 4 clang-tidy -p build/debug --quiet

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build var
