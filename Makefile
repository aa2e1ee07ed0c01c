# Entry points for a fresh Debian 12 machine; each installs what it needs.
.PHONY: bootstrap build demo gui test bench fuzz clean

bootstrap:
	@scripts/bootstrap.sh

build: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release

# Builds only the tessitor program, quietly; the build's output is shown
# only when it fails.
demo: bootstrap
	@log=$$(mktemp) && \
	if cmake --preset release >"$$log" 2>&1 && cmake --build --preset release --target tessitor_cli >>"$$log" 2>&1; \
	then rm -f "$$log"; else cat "$$log" >&2; rm -f "$$log"; exit 1; fi
	@./build/release/tessitor demo

gui: build
	./build/release/tessitor-gui --virtual

test: bootstrap
	cmake --preset ci
	cmake --build --preset ci
	ctest --preset ci
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

bench: build
	./build/release/bench/tessitor_bench

# Each libFuzzer target for FUZZ_SECONDS, from its seeds (fuzz/corpus/T) with
# its dictionary (fuzz/T.dict); new inputs and findings stay in build/fuzz.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= simdrive communicationinfo netframe application bhdecode canwire
fuzz:
	@scripts/bootstrap.sh fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz
	@for t in $(FUZZ_TARGETS); do \
	    mkdir -p build/fuzz/corpus/$$t build/fuzz/findings; \
	    dict=; [ -f fuzz/$$t.dict ] && dict=-dict=fuzz/$$t.dict; \
	    seeds=; [ -d fuzz/corpus/$$t ] && seeds=fuzz/corpus/$$t; \
	    echo "fuzz: $$t for $(FUZZ_SECONDS) s"; \
	    ./build/fuzz/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
	        -artifact_prefix=build/fuzz/findings/$$t- $$dict build/fuzz/corpus/$$t $$seeds || exit 1; \
	done

clean:
	rm -rf build
