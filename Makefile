# Convenience entry points. Each target installs missing Debian packages
# first (scripts/install-deps.sh asks for root or sudo only when something
# is missing), so `make demo` and `make check` work on a fresh machine.
#
#   make demo           release build, then `quil info` and `quil dump` on the example
#   make check          all tests (plain and ASan/UBSan) plus a short fuzz run
#   make fuzz           only the fuzz targets, FUZZ_SECONDS each (default 600)
#   make fuzz-long      only the fuzz targets, FUZZ_RUNS executions each
#                       (default 10 million) on inputs of at most 16 KiB
#   make install-check  install (static and shared) to a temporary prefix and
#                       build a consumer with find_package and with pkg-config
#   make fixtures       regenerate tests/data/ (needs ffmpeg)
#   make sample         regenerate examples/sample.mp4 (needs ffmpeg)
#   make clean          remove the build directories

JOBS ?= 2
FUZZ_SECONDS ?= 600
FUZZ_RUNS ?= 10000000
SAMPLE := examples/sample.mp4

.PHONY: demo check fuzz fuzz-long install-check fixtures sample deps clean

demo: deps
	@cmake -S . -B build -G Ninja -Wno-dev -DCMAKE_BUILD_TYPE=Release >/dev/null
	ninja -C build -j$(JOBS) quil_tool
	./build/quil info $(SAMPLE)
	./build/quil dump $(SAMPLE)

check: deps
	JOBS=$(JOBS) scripts/check.sh all

fuzz: deps
	JOBS=$(JOBS) FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/check.sh fuzz

fuzz-long: deps
	JOBS=$(JOBS) FUZZ_RUNS=$(FUZZ_RUNS) scripts/check.sh fuzz

install-check: deps
	JOBS=$(JOBS) scripts/install-check.sh

fixtures: deps
	scripts/make-fixtures.sh

sample: deps
	scripts/make-sample.sh

deps:
	@scripts/install-deps.sh

clean:
	rm -rf build build-asan build-fuzz build-install
