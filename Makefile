# Everything that a developer or CI calls. Each target installs what it needs (Debian packages) and
# builds below build/. KAMAILIO=/path/to/kamailio [KAMAILIO_MODULES=/path/to/modules] names the host
# to build and run with; without it an installed 6.0.x is used, or Debian's package is unpacked.

SHELL := /bin/bash
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE := cmake -G Ninja
DEPS := tools/install-deps.sh
HOST := $(CURDIR)/tools/host-kamailio

export HOST_ROOT ?= $(CURDIR)/build/host

.PHONY: all module demo test lint format bench fuzz clean

all: module

# The installable module, for the host's released version unless KAMAILIO= says otherwise.
module:
	@$(DEPS) module
	@$(CMAKE) -S . -B $(BUILD)/module -DBUILD_TESTING=OFF -DKAMAILIO=$(KAMAILIO) >/dev/null
	@cmake --build $(BUILD)/module -j $(JOBS)
	@echo "module: $(BUILD)/module/tarn_memdb.so"

# The module once more, for the host that tests and demo run on.
.PHONY: host-module
host-module:
	@$(DEPS) module demo
	@tools/host-root.sh >/dev/null
	@$(CMAKE) -S . -B $(BUILD)/demo -DBUILD_TESTING=OFF -DKAMAILIO=$(HOST) >/dev/null
	@cmake --build $(BUILD)/demo -j $(JOBS) | tail -n 1

demo: host-module
	@demo/run $(BUILD)/demo/tarn_memdb.so

test: lint
	@$(DEPS) module test
	@tools/host-root.sh >/dev/null
	@$(CMAKE) -S . -B $(BUILD)/test -DKAMAILIO=$(HOST) -DKAMAILIO_SRC=$(KAMAILIO_SRC) >/dev/null
	@cmake --build $(BUILD)/test -j $(JOBS) | tail -n 1
	@$(CMAKE) -S . -B $(BUILD)/sanitize -DTARN_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug >/dev/null
	@cmake --build $(BUILD)/sanitize -j $(JOBS) | tail -n 1
	@cd $(BUILD)/sanitize && ctest -j $(JOBS) --output-on-failure
	@cd $(BUILD)/test && ctest -j $(JOBS) --output-on-failure

lint:
	@$(DEPS) module lint
	@tools/lint.sh $(BUILD)

format:
	@$(DEPS) lint
	@git ls-files --cached --others --exclude-standard '*.cpp' '*.cc' '*.h' | xargs clang-format -i

FUZZ_SECONDS ?= 60
fuzz:
	@$(DEPS) module test fuzz
	@tests/fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

bench:
	@$(DEPS) module bench
	@$(CMAKE) -S . -B $(BUILD)/bench -DBUILD_TESTING=OFF -DTARN_BENCH=ON -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD)/bench -j $(JOBS) | tail -n 1
	@bench/run.sh $(BUILD)/bench

clean:
	rm -rf $(BUILD)
