# Every target first installs what is missing, so a fresh Debian 12 machine needs nothing but this checkout.
JOBS ?= $(shell nproc)
CONFIGURE = cmake -S . -G Ninja -Wno-dev

.PHONY: all deps build test demo asan tsan bench fuzz install clean

all: build

deps:
	@./scripts/install-deps.sh

build: deps
	@$(CONFIGURE) -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo > build.configure.log || (cat build.configure.log; exit 1)
	@rm -f build.configure.log
	cmake --build build -j $(JOBS)

test: build
	ctest --test-dir build --output-on-failure -j $(JOBS)

demo: build
	./scripts/demo.sh build demo-out

# The whole suite under AddressSanitizer, LeakSanitizer and UndefinedBehaviorSanitizer.
asan: deps
	@$(CONFIGURE) -B build-asan -DCMAKE_BUILD_TYPE=Debug -DPCP_SANITIZE=address -DPCP_BUILD_BENCH=OFF > /dev/null
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	ctest --test-dir build-asan --output-on-failure -j $(JOBS)

# The tests of the threaded parts under ThreadSanitizer.
tsan: deps
	@$(CONFIGURE) -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DPCP_SANITIZE=thread -DPCP_BUILD_BENCH=OFF > /dev/null
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/scripts/tsan.supp ctest --test-dir build-tsan --output-on-failure -j $(JOBS)

bench: build
	./scripts/bench.sh build

# libFuzzer targets, built with clang; run one with e.g. build-fuzz/fuzz/fuzz_nodefiles fuzz/corpus/nodefiles
fuzz:
	@./scripts/install-deps.sh --fuzz
	@CC=clang-14 CXX=clang++-14 $(CONFIGURE) -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPCP_BUILD_FUZZ=ON \
		-DPCP_BUILD_TESTS=OFF -DPCP_BUILD_BENCH=OFF > /dev/null
	cmake --build build-fuzz -j $(JOBS) --target fuzzers

install: build
	cmake --install build

clean:
	rm -rf build build-asan build-tsan build-fuzz demo-out
