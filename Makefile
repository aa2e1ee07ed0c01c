# Entry points for a fresh Debian 12 machine; each installs what it needs.
.PHONY: bootstrap build demo test bench clean

bootstrap:
	@scripts/bootstrap.sh

build: bootstrap
	cmake --preset release >/dev/null
	cmake --build --preset release

demo: build
	./build/release/tessitor demo

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

clean:
	rm -rf build
