# Thin wrapper around CMake so that the README's commands do everything.
BUILD_DIR ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all bootstrap configure build run test bench clean

all: build

bootstrap:
	@bash scripts/bootstrap

configure: bootstrap
	@if [ ! -f $(BUILD_DIR)/build.ninja ]; then \
	  cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS); fi

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	bash scripts/run-local $(BUILD_DIR)

test: build
	bash scripts/run-tests $(BUILD_DIR)

bench: build
	$(BUILD_DIR)/bench/tavelo_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
	$(BUILD_DIR)/bench/sync_engine_bench --memory
	$(BUILD_DIR)/bench/sync_engine_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

clean:
	rm -rf $(BUILD_DIR)

# Every screen, offscreen, light and dark, from a seeded workspace.
.PHONY: screenshots
screenshots: configure
	cmake --build $(BUILD_DIR) --target tavelo-screenshots -j $(JOBS)
	QT_QPA_PLATFORM=offscreen $(BUILD_DIR)/src/views/shell/tavelo-screenshots $(BUILD_DIR)/screenshots
