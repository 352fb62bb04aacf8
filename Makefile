# Convenience front end over CMake.
#   make                  build into build/ (build/libconfigmanager.so)
#   make test             build and run every test
#   make test-be          cross-build for s390x (big-endian) into build-be/, run the
#                         tests under qemu, compare data files with the native build
#   make test-ppc         the same for 32-bit big-endian PowerPC (the device's ABI) in
#                         build-ppc/; its OpenSSL and GoogleTest are built once from
#                         Debian's sources into /var/cache/libconfigmanager-ppc
#   make install PREFIX=  install library, headers and pkg-config file
#   make install-check    install into a scratch prefix and build a C program against it
#   make demo             the library at work, driven by cmctl, in a temporary device tree
#   make deps             install the Debian packages of the native build (tools/install-deps.sh)
#   make fuzz             build the libFuzzer targets with clang under ASan/UBSan into
#                         build-fuzz/ and run each for FUZZ_SECONDS (default 60)
#   make check-leaks      run the tests and check they touched nothing outside their roots
#   make test-asan        build into build-asan/ with the address and undefined-behaviour
#                         sanitizers, run every test (halts on the first report)
#   make test-tsan        build into build-tsan/ with the thread sanitizer, run every test
#                         (suppressions for both: tests/sanitizers/*.supp, each with its reason)
#   make stress           1 master and 7 other processes write and watch for STRESS_SECONDS
#                         (default 25); fails on any lost change, mismatch, crash or hang
#   make sweep            corruption sweep: byte flips, truncations, junk on data files;
#                         the master must repair each, no process may crash or hang
#                         (stops after SWEEP_BUDGET seconds, default 60)
BUILD ?= build
BUILD_BE ?= build-be
BUILD_PPC ?= build-ppc
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all build test test-be build-be be-sysroot compare-be install install-check clean demo deps
.PHONY: test-ppc build-ppc ppc-sysroot compare-ppc
.PHONY: test-asan test-tsan build-asan build-tsan stress sweep

all: build

# Before the first configure, say which command installs a missing package
# (or install it, when run as root with apt-get).
$(BUILD)/CMakeCache.txt:
	@tools/install-deps.sh --check
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_FLAGS)

build: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# Big-endian legs, each a cross build with its tests run under qemu-user and
# the sample writer's data files and backup text compared with the native
# build's.  The leg fails unless `file` shows the library was built for the
# leg's processor (byte_order_test checks the same from inside).
#   be:  s390x (64-bit) in $(BUILD_BE); Debian's s390x OpenSSL and GoogleTest
#        packages unpacked into $(BUILD_BE)/sysroot.
#   ppc: 32-bit PowerPC, the device's own ABI, in $(BUILD_PPC); OpenSSL and
#        GoogleTest built from Debian's sources into a cache directory that
#        $(BUILD_PPC)/sysroot links to (see the script).
be-sysroot:
	tools/be/fetch-sysroot.sh $(BUILD_BE)/sysroot

ppc-sysroot:
	JOBS=$(JOBS) tools/be/build-ppc-sysroot.sh $(BUILD_PPC)/sysroot

# $(call cross_leg,NAME,BUILD_DIR,TOOLCHAIN,PATTERN OF `file` OUTPUT)
# Configured on every run (cheap), so that an interrupted or failed first
# configure never leaves a half-made build tree behind.
define cross_leg
build-$(1): $(1)-sysroot
	cmake -S . -B $(2) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/toolchain-$(3).cmake \
	  -DCM_BE_SYSROOT=$(abspath $(2)/sysroot) $(CMAKE_FLAGS)
	cmake --build $(2) -j $(JOBS)

test-$(1): build-$(1)
	@kind=$$$$(file -L $(2)/libconfigmanager.so) && echo "$$$$kind" && echo "$$$$kind" | grep -q '$(4)' \
	  || { echo "$(2)/libconfigmanager.so is not $(4)" >&2; exit 1; }
	cd $(2) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) compare-$(1)

compare-$(1): $(BUILD)/CMakeCache.txt build-$(1)
	cmake --build $(BUILD) -j $(JOBS) --target cm_write_sample
	tools/be/compare-endianness.sh $(BUILD) $(2)
endef
$(eval $(call cross_leg,be,$(BUILD_BE),s390x,ELF 64-bit MSB.*S/390))
$(eval $(call cross_leg,ppc,$(BUILD_PPC),ppc,ELF 32-bit MSB.*PowerPC))
# The targets the two lines above define, named here so that a search finds them.
test-be:
test-ppc:

install: $(BUILD)/CMakeCache.txt
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS)
	cmake --install $(BUILD)

# Installs into a scratch prefix and builds a plain C program (an example)
# against the installed headers and library through pkg-config, then runs it.
INSTALL_CHECK_DIR ?= $(BUILD)/install-check
install-check: build
	rm -rf $(INSTALL_CHECK_DIR)
	cmake --install $(BUILD) --prefix $(abspath $(INSTALL_CHECK_DIR))/prefix
	PKG_CONFIG_PATH=$$(dirname $$(find $(abspath $(INSTALL_CHECK_DIR))/prefix -name configmanager.pc)) && \
	  export PKG_CONFIG_PATH && \
	  cc -std=c99 -Wall -Werror examples/values_two_processes.c -o $(INSTALL_CHECK_DIR)/values_two_processes \
	    $$(pkg-config --cflags --libs configmanager) \
	    -Wl,-rpath,$$(pkg-config --variable=libdir configmanager)
	$(INSTALL_CHECK_DIR)/values_two_processes

deps:
	tools/install-deps.sh --native

# Master, watcher and cmctl in a temporary device tree; removes the tree.
demo: build
	tools/demo.sh $(BUILD)

# Runs the suite and fails when it touched anything outside its temporary
# roots (/tmp, /var/log, /var/www, /etc/pki, /home, /root, message queues).
.PHONY: check-leaks
check-leaks: build
	tools/check-no-leaks.sh ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# Sanitizer legs.  The options are set here, so that a plain ctest in the
# build directory runs without them; run through these targets.
BUILD_ASAN ?= build-asan
BUILD_TSAN ?= build-tsan
SAN_DIR := $(CURDIR)/tests/sanitizers
SAN_CMAKE := -DCM_BUILD_BENCHMARKS=OFF $(CMAKE_FLAGS)
export ASAN_TEST_OPTIONS := halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_init_order=1
export LSAN_TEST_OPTIONS := suppressions=$(SAN_DIR)/lsan.supp:print_suppressions=0
export UBSAN_TEST_OPTIONS := halt_on_error=1:print_stacktrace=1:suppressions=$(SAN_DIR)/ubsan.supp
# die_after_fork=0: the tests fork library users out of processes that
# already run threads (a watch thread), and those children start threads of
# their own; without it the sanitizer ends every such child at once.  It
# follows them well enough, except in the two tests that skip themselves
# under it.
export TSAN_TEST_OPTIONS := halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:suppressions=$(SAN_DIR)/tsan.supp:print_suppressions=0

build-asan:
	cmake -S . -B $(BUILD_ASAN) -DCM_SANITIZE=address $(SAN_CMAKE)
	cmake --build $(BUILD_ASAN) -j $(JOBS)

build-tsan:
	cmake -S . -B $(BUILD_TSAN) -DCM_SANITIZE=thread $(SAN_CMAKE)
	cmake --build $(BUILD_TSAN) -j $(JOBS)

test-asan: build-asan
	cd $(BUILD_ASAN) && ASAN_OPTIONS=$$ASAN_TEST_OPTIONS LSAN_OPTIONS=$$LSAN_TEST_OPTIONS \
	  UBSAN_OPTIONS=$$UBSAN_TEST_OPTIONS ctest --output-on-failure -j $(JOBS)

test-tsan: build-tsan
	cd $(BUILD_TSAN) && TSAN_OPTIONS=$$TSAN_TEST_OPTIONS ctest --output-on-failure -j $(JOBS)

STRESS_SECONDS ?= 25
SWEEP_BUDGET ?= 60

stress: build
	$(BUILD)/tests/robustness/cm_stress $(STRESS_SECONDS) 8

sweep: build
	$(BUILD)/tests/robustness/cm_sweep $(SWEEP_BUDGET)

clean:
	rm -rf $(BUILD) $(BUILD_BE) $(BUILD_PPC) $(BUILD_ASAN) $(BUILD_TSAN) $(FUZZ_BUILD)

# Benchmarks: every program built from benchmarks/ and every benchmarks/*.sh
# script, printed as one table (figures against the floor or peer measured in
# the same run).  CM_BENCH_ROUNDS=N sets the rounds of the multi-process ones.
# bench-quick: the same table in under two minutes (CI runs it so that no
# row rots; no figure fails it).  The Redis peer rows need redis-server.
.PHONY: bench bench-quick
bench: build
	python3 benchmarks/run_all.py $(BUILD)

bench-quick: build
	python3 benchmarks/run_all.py $(BUILD) --quick

# Fuzzing: every target runs for FUZZ_SECONDS, seeded from tests/fuzz-corpus/.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_CC ?= clang-14
FUZZ_CXX ?= clang++-14
FUZZ_FLAGS := -fsanitize=address,undefined -fno-sanitize-recover=undefined -fsanitize=fuzzer-no-link -g -O1

.PHONY: fuzz build-fuzz
build-fuzz:
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=$(FUZZ_CC) -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) \
	  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_FLAGS="$(FUZZ_FLAGS)" -DCMAKE_CXX_FLAGS="$(FUZZ_FLAGS)" \
	  -DCM_BUILD_FUZZERS=ON -DCM_BUILD_TESTS=OFF -DCM_BUILD_EXAMPLES=OFF -DCM_BUILD_BENCHMARKS=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers

fuzz: build-fuzz
	tools/fuzz/run-fuzzers.sh $(FUZZ_BUILD)/fuzz $(FUZZ_SECONDS)
