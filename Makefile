# Entry points for a fresh machine. Each installs what is missing, then builds.
PRESET ?= asan
.PHONY: deps build test demo bench fidelity fuzz format clean

deps:
	@./scripts/install-deps

build: deps
	@cmake --preset $(PRESET) >/dev/null
	@cmake --build --preset $(PRESET)

test: build
	@ctest --preset $(PRESET)

demo: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release
	@./scripts/demo

bench: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release
	@./build/release/bench/orvelline-bench
	@node bench/web_map_bench.mjs $(CURDIR) build/release/web

fidelity: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target orvelline-scenario
	@./build/release/orvelline-scenario --fidelity data/fidelity/*.json

fuzz: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz --target fuzz-traffic-line fuzz-xml-readers fuzz-simconnect-messages fuzz-emulator-packets fuzz-aircraft-cfg fuzz-airport-file fuzz-bgl
	@mkdir -p build/fuzz/corpus-line build/fuzz/corpus-xml
	@./build/fuzz/fuzz/fuzz-traffic-line -max_total_time=$${FUZZ_SECONDS:-60} -max_len=1024 build/fuzz/corpus-line fuzz/corpus/traffic-line
	@./build/fuzz/fuzz/fuzz-xml-readers -max_total_time=$${FUZZ_SECONDS:-60} -max_len=2048 build/fuzz/corpus-xml fuzz/corpus/xml-readers
	@mkdir -p build/fuzz/corpus-messages build/fuzz/corpus-emulator
	@./build/fuzz/fuzz/fuzz-simconnect-messages -max_total_time=$${FUZZ_SECONDS:-60} -max_len=4096 build/fuzz/corpus-messages fuzz/corpus/simconnect-messages
	@./build/fuzz/fuzz/fuzz-emulator-packets -max_total_time=$${FUZZ_SECONDS:-60} -max_len=4096 build/fuzz/corpus-emulator fuzz/corpus/emulator-packets
	@mkdir -p build/fuzz/corpus-cfg
	@./build/fuzz/fuzz/fuzz-aircraft-cfg -max_total_time=$${FUZZ_SECONDS:-60} -max_len=8192 build/fuzz/corpus-cfg fuzz/corpus/aircraft-cfg
	@mkdir -p build/fuzz/corpus-airport-file
	@./build/fuzz/fuzz/fuzz-airport-file -max_total_time=$${FUZZ_SECONDS:-60} -max_len=16384 build/fuzz/corpus-airport-file fuzz/corpus/airport-file
	@mkdir -p build/fuzz/corpus-bgl
	@./build/fuzz/fuzz/fuzz-bgl -max_total_time=$${FUZZ_SECONDS:-60} -max_len=65536 build/fuzz/corpus-bgl data/scenery

format:
	@clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	@rm -rf build
