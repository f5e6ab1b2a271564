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

# Coverage-guided fuzzing with libFuzzer (clang): every target runs FUZZ_SECONDS (default
# 60) from its corpus in build-fuzz/corpus/TARGET, which starts from the target's seeds and
# keeps what each run adds. Every target runs even when one finds something; findings go
# to build-fuzz/findings/TARGET/ and are listed at the end (then the exit status is 1).
FUZZ_SECONDS ?= 60
fuzz:
	@scripts/bootstrap --fuzz
	cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
	    -DCMAKE_CXX_COMPILER=clang++ -DPLAYFILE_SANITIZE=address,undefined -DPLAYFILE_FUZZ=ON
	cmake --build build-fuzz -j $(JOBS) --target fuzz/all
	@found=""; for f in build-fuzz/fuzz/fuzz_*; do \
	    case $$f in *_seeds) continue;; esac; \
	    t=$$(basename $$f); mkdir -p build-fuzz/corpus/$$t build-fuzz/findings/$$t; \
	    $${f}_seeds build-fuzz/corpus/$$t; \
	    echo "== $$t: $(FUZZ_SECONDS) s"; \
	    $$f -max_total_time=$(FUZZ_SECONDS) -timeout=25 -print_final_stats=1 \
	        -artifact_prefix=build-fuzz/findings/$$t/ build-fuzz/corpus/$$t || found="$$found $$t"; \
	done; \
	if [ -n "$$found" ]; then echo "fuzz: findings in:$$found (build-fuzz/findings/)"; exit 1; fi; \
	echo "fuzz: every target ran $(FUZZ_SECONDS) s without a finding"
