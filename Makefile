# Everything that a developer or CI calls. Each target installs what it needs (Debian packages) and
# builds below build/. KAMAILIO=/path/to/kamailio [KAMAILIO_MODULES=/path/to/modules] names the host
# to build and run with; without it an installed 6.0.x or 6.1.x is used, or Debian's package is
# unpacked.

SHELL := /bin/bash
.SHELLFLAGS := -o pipefail -ec

BUILD ?= build
JOBS ?= $(shell nproc)
DEPS := tools/install-deps.sh
HOST := $(CURDIR)/tools/host-kamailio

export HOST_ROOT ?= $(CURDIR)/build/host

# $(call build,FOLDER,OPTIONS): configures and builds below build/FOLDER; talks only of failures.
build = tools/quiet.sh $(BUILD)/log/$(1)-configure cmake -G Ninja -S . -B $(BUILD)/$(1) $(2) && \
        tools/quiet.sh $(BUILD)/log/$(1)-build cmake --build $(BUILD)/$(1) -j $(JOBS)

# For module, tools, install and deb: KAMAILIO=, HOST_VERSION=6.0.7, or the installed server.
# JSON_ARRAYS=1 has clients of JSON and XML get all lines of a listing.
for_host = "-DKAMAILIO=$(KAMAILIO)" -DHOST_VERSION=$(HOST_VERSION) -DTARN_FOR_INSTALLED=ON \
  -DJSON_ARRAYS=$(or $(JSON_ARRAYS),OFF)
say_host = KAMAILIO='$(KAMAILIO)' HOST_VERSION='$(HOST_VERSION)' tools/module-host --installed --say
comma := ,
say_json = $(if $(filter-out 0 OFF,$(JSON_ARRAYS)),$(comma) with JSON arrays)

# A given host that can't be built for is told ahead of everything else.
.PHONY: given-host
given-host:
	@$(if $(KAMAILIO),KAMAILIO='$(KAMAILIO)' tools/module-host >/dev/null)

.PHONY: all help module tools demo test lint format bench fuzz install deb clean host-module

all: module

# This list.
help:
	@awk -F : '/^# / { if (!said) said = substr($$0, 3); next } \
	  /^[a-z-]+:/ && said { printf "%-16s %s\n", $$1, said } { said = "" }' $(MAKEFILE_LIST)

# The installable module, build/module/tarn_memdb.so.
# For the installed server, else for 6.0.3; KAMAILIO=/path/to/kamailio or HOST_VERSION=6.0.7 say
# otherwise. With JSON_ARRAYS=1, clients of JSON and XML get all lines of a listing.
module:
	@$(say_host) >/dev/null
	@$(DEPS) module
	@$(call build,module,-DBUILD_TESTING=OFF $(for_host))
	@echo "module: $(BUILD)/module/tarn_memdb.so for $$($(say_host))$(say_json)"

# Module, tarn-memdb-check and tarn-memdb-convert.
tools:
	@$(say_host) >/dev/null
	@$(DEPS) module tools
	@$(call build,module,-DBUILD_TESTING=OFF -DTARN_TOOLS=ON $(for_host))
	@echo "tools: $(BUILD)/module/tools/check/tarn-memdb-check and convert/tarn-memdb-convert for $$($(say_host))"

PREFIX ?= /usr
MODULES_DIR ?= lib/x86_64-linux-gnu/kamailio/modules
# Module, tools, manual pages, guide and an example site below DESTDIR/PREFIX.
# make install [DESTDIR=] [PREFIX=/usr] [MODULES_DIR=lib/x86_64-linux-gnu/kamailio/modules]
install:
	@$(say_host) >/dev/null
	@$(DEPS) module tools install
	@$(call build,install,-DBUILD_TESTING=OFF -DTARN_TOOLS=ON -DTARN_INSTALL=ON $(for_host) \
	  -DCMAKE_INSTALL_PREFIX=$(PREFIX) -DMODULES_DIR=$(MODULES_DIR))
	@DESTDIR=$(DESTDIR) cmake --install $(BUILD)/install
	@echo "install: for $$($(say_host))$(say_json)"

# A Debian package of the same.
# make deb [MAINTAINER='Name <address>'] [JSON_ARRAYS=1]
deb:
	@$(say_host) >/dev/null
	@$(DEPS) module tools install deb
	@$(call build,deb,-DBUILD_TESTING=OFF -DTARN_TOOLS=ON -DTARN_INSTALL=ON $(for_host) \
	  $(if $(MAINTAINER),"-DTARN_MAINTAINER=$(MAINTAINER)") -DCMAKE_INSTALL_PREFIX=/usr \
	  -DMODULES_DIR=lib/x86_64-linux-gnu/kamailio/modules)
	@rm -f $(BUILD)/deb/*.deb
	@tools/quiet.sh $(BUILD)/log/deb-pack cpack --config $(BUILD)/deb/CPackConfig.cmake -B $(BUILD)/deb
	@echo "deb: $$(ls $(BUILD)/deb/*.deb) for $$($(say_host))$(say_json)"

.PHONY: package-test
# The package in a clean root of Debian 13, booted, with calls through its example site.
# Two minutes; needs root's rights.
package-test:
	@$(DEPS) module tools install deb package-test
	@/usr/bin/python3 -B tests/package/clean_root.py $(BUILD)/package-test $(MAKE) -s deb

# The module once more, for the host that the demo runs on.
host-module: given-host
	@$(DEPS) module demo
	@tools/host-root.sh >/dev/null
	@$(call build,demo,-DBUILD_TESTING=OFF -DKAMAILIO=$(HOST))

# The main job on a real server.
demo: host-module
	@demo/run $(BUILD)/demo/tarn_memdb.so

.PHONY: demo-cluster
# The same table on three real servers.
# A node is killed, one loses its files, the network is cut; half a minute at most.
demo-cluster: host-module
	@demo/cluster/run $(BUILD)/demo/tarn_memdb.so

# All tests, in minutes.
# One more at a time than there are processors, as those on a real server often wait.
test: given-host lint
	@$(DEPS) module tools test install deb package
	@tools/host-root.sh >/dev/null
	@echo "test: building"
	@$(call build,test,-DTARN_TOOLS=ON -DTARN_INSTALL=ON -DTARN_TEST_SANITIZED=ON \
	  -DKAMAILIO=$(HOST) -DKAMAILIO_SRC=$(KAMAILIO_SRC) -DCMAKE_INSTALL_PREFIX=/usr \
	  -DMODULES_DIR=$(MODULES_DIR))
	@cd $(BUILD)/test && ctest -j $$(($(JOBS) + 1)) --output-on-failure

# Form, warnings, static analysis, rooms.
lint:
	@$(DEPS) module lint
	@tools/lint.sh $(BUILD)

# Sources brought into form.
format:
	@$(DEPS) lint
	@git ls-files --cached --others --exclude-standard '*.cpp' '*.cc' '*.h' | xargs clang-format -i

.PHONY: faults
# Everything that can fail, one thing at a time.
# About three minutes.
faults: given-host
	@$(DEPS) module tools test
	@tools/host-root.sh >/dev/null
	@tools/quiet.sh $(BUILD)/log/faults-configure cmake -G Ninja -S . -B $(BUILD)/faults \
	  -DTARN_TEST_SANITIZED=ON -DKAMAILIO=$(HOST)
	@tools/quiet.sh $(BUILD)/log/faults-build cmake --build $(BUILD)/faults -j $(JOBS) \
	  --target faults_sanitized
	@$(BUILD)/faults/tests/faults/faults_sanitized

HOSTS ?=
KAMAILIO_TREES ?=
.PHONY: hosts
# Layout check, module tests and host tests on several versions of the server, and a table.
# make hosts HOSTS="6.0.7 6.1.4" KAMAILIO_TREES=folder-of-built-trees
hosts:
	@$(DEPS) module test
	@/usr/bin/python3 -B tools/hosts.py $(BUILD)/hosts $(JOBS) "$(KAMAILIO_TREES)" $(HOSTS)

.PHONY: coverage
# Lines and branches that all tests together run.
coverage: given-host
	@$(DEPS) module tools test coverage
	@tools/host-root.sh >/dev/null
	@$(call build,coverage,-DTARN_COVERAGE=ON -DKAMAILIO=$(HOST))
	@JOBS=$(JOBS) tools/coverage.sh $(BUILD)/coverage

FORECAST_SETS ?= 600
.PHONY: forecast
# What tarn-memdb-check tells of random files, against what a real server makes of them.
# About a minute and a half.
forecast: given-host
	@$(DEPS) module tools test
	@tools/host-root.sh >/dev/null
	@$(call build,forecast,-DBUILD_TESTING=OFF -DTARN_TOOLS=ON -DKAMAILIO=$(HOST))
	@TARN_CHECK=$(abspath $(BUILD))/forecast/tools/check/tarn-memdb-check \
	  TARN_MODULE=$(abspath $(BUILD))/forecast/tarn_memdb.so \
	  /usr/bin/python3 -B tests/tools/forecast/run.py $(FORECAST_SETS)

FUZZ_SECONDS ?= 60
# Random input, FUZZ_SECONDS= for each harness.
fuzz:
	@$(DEPS) module test fuzz
	@tests/fuzz/run.sh $(BUILD)/fuzz $(FUZZ_SECONDS)

.PHONY: stress
STRESS_OPERATIONS ?= 10000000
STRESS_SEEDS ?= 5000
STRESS_SECONDS ?= 30
# Eight processes, the engine beside plain chains, readers without a lock beside writers.
# All operations; the readers once for each of the host's allocators.
stress: host-module
	@$(DEPS) module tools test
	@tools/quiet.sh $(BUILD)/log/stress-configure cmake -G Ninja -S . -B $(BUILD)/stress
	@tools/quiet.sh $(BUILD)/log/stress-build cmake --build $(BUILD)/stress -j $(JOBS) --target stress stress_directories stress_threads unit_memdb
	@$(BUILD)/stress/tests/stress/stress $(STRESS_OPERATIONS)
	@$(BUILD)/stress/tests/stress/stress_directories $(STRESS_SEEDS)
	@STRESS_SEEDS=$(STRESS_SEEDS) $(BUILD)/stress/tests/unit/unit_memdb --gtest_brief=1 \
	  --gtest_filter='PrefixModelTest.*'
	@setarch -R $(BUILD)/stress/tests/stress/stress_threads $(STRESS_SECONDS)
	@TARN_MODULE=$(abspath $(BUILD))/demo/tarn_memdb.so STRESS_SECONDS=$(STRESS_SECONDS) \
	  /usr/bin/python3 -B tests/stress/readers_without_locks.py
	@TARN_MODULE=$(abspath $(BUILD))/demo/tarn_memdb.so STRESS_SECONDS=$(STRESS_SECONDS) \
	  /usr/bin/python3 -B tests/stress/growing_tables.py

# The engine beside its peers.
bench:
	@$(DEPS) module bench
	@$(call build,bench,-DBUILD_TESTING=OFF -DTARN_BENCH=ON -DCMAKE_BUILD_TYPE=Release)
	@bench/run.sh $(BUILD)/bench

.PHONY: bench-host bench-callgrind
# The module beside its peers on a real server.
# See the head of bench/host_bench.py for its settings.
bench-host: host-module
	@python3 bench/host_bench.py $(BUILD)/demo/tarn_memdb.so
	@$(MAKE) --no-print-directory bench-load

.PHONY: bench-load
# Start, reload and check of large tables, beside a bare getline loop.
bench-load: host-module
	@$(DEPS) module tools
	@$(call build,module,-DBUILD_TESTING=OFF -DTARN_TOOLS=ON $(for_host))
	@c++ -O2 -std=c++20 -o $(BUILD)/getline_loop bench/getline_loop.cc
	@python3 bench/load_bench.py $(BUILD)/demo/tarn_memdb.so \
	  $(BUILD)/module/tools/check/tarn-memdb-check $(BUILD)/getline_loop

# Instructions of a call.
# On the stand-in host and then on the real one.
bench-callgrind: host-module
	@$(DEPS) module bench callgrind
	@$(call build,callgrind,-DBUILD_TESTING=OFF -DTARN_BENCH=ON)
	@bench/callgrind.sh $(BUILD)/callgrind
	@python3 bench/host_profile.py $(BUILD)/demo/tarn_memdb.so

CRASH_ROUNDS ?= 300
.PHONY: crash
# A server killed and stopped, and all that can be wrong with its files.
crash: host-module
	@CRASH_ROUNDS=$(CRASH_ROUNDS) tests/crash/run.py $(BUILD)/demo/tarn_memdb.so

.PHONY: cluster
# The same table on three servers, in all that can go wrong between them, and beside htable.
# About eight minutes.
cluster: host-module
	@$(DEPS) cluster
	@tests/cluster/run.py $(BUILD)/demo/tarn_memdb.so
	@tests/cluster/run.py --beside $(BUILD)/demo/tarn_memdb.so

# What was built goes.
clean:
	rm -rf $(BUILD)
