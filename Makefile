# The two commands of the README: `make demo` and `make test`. Each installs what is
# missing, configures, builds and runs. SANITIZE=address,undefined or SANITIZE=thread
# builds the same suite with a sanitizer, in a build folder of its own.

SANITIZE ?=
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

ifeq ($(SANITIZE),)
BUILD_DIR ?= build
else
BUILD_DIR ?= build-$(subst $(comma),-,$(SANITIZE))
endif
comma := ,

.PHONY: all bootstrap configure build test demo bench compare clean format fuzz

all: build

bootstrap:
	@scripts/bootstrap

$(BUILD_DIR)/build.ninja: | bootstrap
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	    -DPLAYFILE_SANITIZE="$(SANITIZE)"

configure: bootstrap $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

demo: build
	$(BUILD_DIR)/tools/playfile demo

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do [ -x "$$b" ] && "$$b"; done

# The side-by-side comparison with ffmpeg, melt and libopenshot (bench/compare).
compare: build
	@scripts/bootstrap --compare
	bench/compare $(BUILD_DIR)

format:
	find host ole playfile backends tools tests bench -name '*.h' -o -name '*.cpp' | xargs clang-format -i

clean:
	rm -rf build build-*

# Coverage-guided fuzzing of the parsers with libFuzzer (clang), FUZZ_SECONDS each.
FUZZ_SECONDS ?= 60
fuzz:
	@scripts/bootstrap --fuzz
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
	    -DCMAKE_CXX_COMPILER=clang++ -DPLAYFILE_SANITIZE=address,undefined -DPLAYFILE_FUZZ=ON
	cmake --build build-fuzz -j $(JOBS)
	@for f in build-fuzz/fuzz/fuzz_*; do mkdir -p build-fuzz/corpus/$$(basename $$f); \
	    $$f -max_total_time=$(FUZZ_SECONDS) -artifact_prefix=build-fuzz/ build-fuzz/corpus/$$(basename $$f) || exit 1; done
