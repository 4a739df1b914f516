# trak: build the kernel module and the user-space tools, and test both.
#
#   make deps     install what building and testing need (apt; root)
#   make module   build driver/trak.ko against Debian's 6.1 kernel
#   make tools    build libtrak, trakctl and the test suites (CMake)
#   make lint     checkpatch and sparse (kernel), clang-format and
#                 clang-tidy (user space)
#   make check    all of the above, then every test (host and VM)
#   make demo     track a partition in the test VM, end to end
#   make bench    the change-tracking benchmark, in the test VM
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
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local

.PHONY: all deps module tools lint check demo bench install uninstall deb clean

all: module tools

deps:
	@scripts/install-deps.sh

module: deps
	@test -n "$(KVER)" || { echo "no Debian 6.1 kernel installed"; exit 1; }
	$(MAKE) -C $(KDIR) M=$(CURDIR)/driver modules

tools: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTRAK_KVER=$(KVER)
	cmake --build $(BUILD) -j $(JOBS)

lint: module tools
	scripts/lint.sh $(KDIR) $(BUILD)
	cmake --build $(BUILD) --target format-check
	cmake --build $(BUILD) --target tidy

check: module tools lint
	ctest --test-dir $(BUILD) --output-on-failure -j 1

demo: module tools
	scripts/demo.sh $(BUILD)

bench: module tools
	bench/cbt/run.sh $(BUILD)

# Builds only what gets installed, so that an install needs neither the
# test suites nor the kernel.
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
	rm -rf $(BUILD) out
