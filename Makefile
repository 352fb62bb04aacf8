# Convenience front end over CMake.
#   make                  build into build/ (build/libconfigmanager.so)
#   make test             build and run every test
#   make test-be          cross-build for s390x (big-endian) into build-be/, run the
#                         tests under qemu, compare data files with the native build
#   make install PREFIX=  install library, headers and pkg-config file
#   make install-check    install into a scratch prefix and build a C program against it
#   make demo             the library at work, driven by cmctl, in a temporary device tree
#   make deps             install the Debian packages of the native build (tools/install-deps.sh)
#   make fuzz             build the libFuzzer targets with clang under ASan/UBSan into
#                         build-fuzz/ and run each for FUZZ_SECONDS (default 60)
#   make check-leaks      run the tests and check they touched nothing outside their roots
BUILD ?= build
BUILD_BE ?= build-be
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all build test test-be build-be be-sysroot compare-be install install-check clean demo deps

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

# Big-endian leg: s390x cross build under $(BUILD_BE), tests run under
# qemu-s390x.  OpenSSL and GoogleTest for s390x are unpacked from Debian's
# packages into $(BUILD_BE)/sysroot.
BE_SYSROOT := $(BUILD_BE)/sysroot

be-sysroot:
	tools/be/fetch-sysroot.sh $(BE_SYSROOT)

# Configured on every run (cheap), so that an interrupted or failed first
# configure never leaves a half-made build tree behind.
build-be: be-sysroot
	cmake -S . -B $(BUILD_BE) -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/toolchain-s390x.cmake \
	  -DCM_BE_SYSROOT=$(abspath $(BE_SYSROOT)) $(CMAKE_FLAGS)
	cmake --build $(BUILD_BE) -j $(JOBS)

# Then the sample writer of both builds must produce identical data files.
test-be: build-be
	cd $(BUILD_BE) && ctest --output-on-failure -j $(JOBS)
	$(MAKE) compare-be

compare-be: $(BUILD)/CMakeCache.txt build-be
	cmake --build $(BUILD) -j $(JOBS) --target cm_write_sample
	tools/be/compare-endianness.sh $(BUILD) $(BUILD_BE)

install: $(BUILD)/CMakeCache.txt
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS)
	cmake --install $(BUILD)

# Installs into a scratch prefix and builds a plain C program against the
# installed headers and library through pkg-config, then runs it.
INSTALL_CHECK_DIR ?= $(BUILD)/install-check
install-check: build
	rm -rf $(INSTALL_CHECK_DIR)
	cmake --install $(BUILD) --prefix $(abspath $(INSTALL_CHECK_DIR))/prefix
	PKG_CONFIG_PATH=$$(dirname $$(find $(abspath $(INSTALL_CHECK_DIR))/prefix -name configmanager.pc)) && \
	  export PKG_CONFIG_PATH && \
	  cc -std=c99 -Wall -Werror tests/c_api_check.c -o $(INSTALL_CHECK_DIR)/c_api_check \
	    $$(pkg-config --cflags --libs configmanager) \
	    -Wl,-rpath,$$(pkg-config --variable=libdir configmanager)
	$(INSTALL_CHECK_DIR)/c_api_check

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

clean:
	rm -rf $(BUILD) $(BUILD_BE)

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
