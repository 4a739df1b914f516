# trak: build the kernel module and the user-space tools, and test both.
#
#   make deps     install what building and testing need (apt; root)
#   make module   build driver/trak.ko against Debian's 6.1 kernel
#   make tools    build libtrak, trakctl and the test suites (CMake)
#   make lint     checkpatch and sparse (kernel), clang-format and
#                 clang-tidy (user space)
#   make check    all of the above, then every test (host and VM), and the
#                 host tests again built with ASan and UBSan, with a short
#                 run of the file-system fuzzer
#   make check-debug  every VM test on the debug kernel (KASAN, lockdep,
#                 kmemleak...); builds that kernel once per machine
#   make fuzz     the fuzzers, long: file systems on the host, ioctls in
#                 the VM (on the debug kernel when it is built)
#   make crash-replay  a snap's copy-on-write order at every moment a
#                 power failure could hit, long: writes logged in the test
#                 VM and replayed (a short run is part of `check`)
#   make stress   the VM stress tests, long: a gigabyte of writes and a
#                 trim under a live snap (not part of `check`)
#   make demo     track a partition in the test VM, end to end
#   make bench    both benchmarks (bench-cbt, bench-snap), in the test VM
#   make bench-cbt   the change-tracking benchmark
#   make bench-snap  the snapshot benchmark
#   make install  install trakctl, libtrak, the headers, man pages, unit,
#                 udev rules and completion (PREFIX, default /usr/local;
#                 DESTDIR for staging)
#   make uninstall  remove what the last `make install` put in place
#   make deb      the Debian packages trak-dkms and trak-tools, in out/deb
#   make clean    remove everything built

# The Debian 6.1 kernel the module is built for and the VM boots.  It is
# looked up lazily, so that `deps` can install it first.
KVER = $(or $(TRAK_KVER),$(shell ls /lib/modules | grep -E '^6\.1\.[0-9]+-[0-9]+-amd64$$' | sort -V | tail -n 1))
KDIR = /lib/modules/$(KVER)/build
BUILD ?= build
# User space again, built by clang with ASan and UBSan, and the fuzzers.
SAN_BUILD ?= build-san
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 1800
FUZZ_CALLS ?= 1000000
SAN_TARGETS = trak_host_tests fsmap_tests snap_tests trakctl fsmap_regression_tests \
	fsmap_fuzz make_fsmap_seeds

PREFIX ?= /usr/local

.PHONY: all deps module tools san lint check check-debug fuzz stress crash-replay demo bench bench-cbt \
	bench-snap install uninstall deb clean

all: module tools

deps:
	@scripts/install-deps.sh

module: deps
	@test -n "$(KVER)" || { echo "no Debian 6.1 kernel installed"; exit 1; }
	$(MAKE) -C $(KDIR) M=$(CURDIR)/driver modules

tools: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRAK_KVER=$(KVER)
	cmake --build $(BUILD) -j $(JOBS)

san: deps
	cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRAK_KVER=$(KVER) \
		-DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
		-DTRAK_SANITIZE=ON -DTRAK_FUZZ=ON
	cmake --build $(SAN_BUILD) -j $(JOBS) --target $(SAN_TARGETS)

lint: module tools
	scripts/lint.sh $(KDIR) $(BUILD)
	cmake --build $(BUILD) --target format-check
	cmake --build $(BUILD) --target tidy

check: module tools lint san
	ctest --test-dir $(BUILD) --output-on-failure -j 1 -LE stress
	ctest --test-dir $(SAN_BUILD) --output-on-failure -j 1 -R '^(host|fsmap|snap|fuzz)\.'

check-debug: tools
	scripts/check-debug.sh $(BUILD)

fuzz: module tools san
	tests/fuzz/run-fsmap-fuzz.sh $(SAN_BUILD)/tests/fuzz/fsmap_fuzz \
		$(SAN_BUILD)/tests/fuzz/make_fsmap_seeds $(SAN_BUILD)/fuzz-fsmap $(FUZZ_SECONDS)
	TRAK_FUZZ_CALLS=$(FUZZ_CALLS) scripts/fuzz-ioctl.sh $(BUILD)

stress: module tools
	ctest --test-dir $(BUILD) --output-on-failure -j 1 -L stress

crash-replay: module tools
	tests/vm/crash-consistency.sh $(BUILD)/vm-crash-replay-out \
		$(BUILD)/tests/vm/trak_vm_crash_tests --full

demo: module tools
	scripts/demo.sh $(BUILD)

bench: bench-cbt bench-snap

bench-cbt: module tools
	bench/cbt/run.sh $(BUILD)

bench-snap: module tools
	bench/snap/run.sh $(BUILD)

# Builds only what gets installed (libtrak and trakctl), so that an install
# needs no kernel; configuring still looks for GoogleTest.
install:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(BUILD) -j $(JOBS) --target trak trakctl
	DESTDIR=$(DESTDIR) cmake --install $(BUILD)
	test -n "$(DESTDIR)" || ldconfig

uninstall:
	DESTDIR=$(DESTDIR) cmake --build $(BUILD) --target uninstall

deb: deps
	scripts/build-debs.sh out/deb

clean:
	-$(MAKE) -C $(KDIR) M=$(CURDIR)/driver clean
	rm -rf $(BUILD) $(SAN_BUILD) out
